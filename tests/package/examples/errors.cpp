// errors.cpp: logs as the agent does, and meets a failure.
#include <orvanta/jose/jwa.h>
#include <orvanta/runtime/orv_error.h>
#include <orvanta/runtime/orvlog.h>

#include <cstdio>

int main() {
    orvlog::configureBasic(true, false);  // records go to standard error and to syslog
    const log4cxx::LoggerPtr logger = orvlog::getLogger(orvlog::append(orvlog::TOP_LOGGER_NAME, "example"));
    ORVLOG_INFO(logger, "looking for the key of %s", "the maker");
    try {
        jwa::Key().loadPublicKey(jwa::ES256, "/nowhere/features.pem");
    } catch (const ORVError& error) {
        ORVLOG_ERROR(logger, "no key: %s", error.what());
        std::printf("code %u, scope %u\n", error.getCode(), ORVError::toScope(error.getCode()));
    }
    orvlog::fini();
}

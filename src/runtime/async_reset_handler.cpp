#include "runtime/async_reset_handler.h"

#include <apr_file_io.h>

#include <algorithm>
#include <cstdio>
#include <exception>

#include "runtime/orvlog.h"

namespace orvlog {

namespace {

constexpr size_t MESSAGES_PER_READ = 16;

// asksForReset returns whether the byte is a request; any other byte only ends the wait.
bool asksForReset(unsigned char message) {
    return message == static_cast<unsigned char>(AsyncResetHandler::Message::Reset) ||
           message == static_cast<unsigned char>(AsyncResetHandler::Message::Flush);
}

// resetSafely keeps a failure of logging from ending the process.
void resetSafely() {
    try {
        orvlog::reset();
    } catch (const std::exception& failure) {
        fprintf(stderr, "ERROR: orvlog::reset() failed (%s)\n", failure.what());
    }
}

}  // namespace

AsyncResetHandler::AsyncResetHandler() : ORVThread("AsyncResetHandler"), m_oPool("orvlog::AsyncResetHandler") {
    if (apr_file_pipe_create(&m_pReadEnd, &m_pWriteEnd, m_oPool.get()) != APR_SUCCESS)
        return;
    apr_file_pipe_timeout_set(m_pReadEnd, -1);
    apr_file_pipe_timeout_set(m_pWriteEnd, 0);
    apr_file_inherit_unset(m_pReadEnd);
    apr_file_inherit_unset(m_pWriteEnd);
}

AsyncResetHandler::~AsyncResetHandler() {
    try {
        stopNoWait();
        send(Message::WakeUp);
        join();
    } catch (...) {
        // a destructor cannot report it
    }
    if (m_pWriteEnd == nullptr)
        return;
    apr_file_close(m_pReadEnd);
    apr_file_close(m_pWriteEnd);
}

bool AsyncResetHandler::start() {
    if (m_pWriteEnd == nullptr)
        return false;
    try {
        ORVThread::start();
        return waitForStart(0);
    } catch (...) {
        return false;
    }
}

void AsyncResetHandler::reset() {
    send(Message::Reset);
}

void AsyncResetHandler::flush() {
    send(Message::Flush);
}

void AsyncResetHandler::send(Message message) {
    if (m_pWriteEnd == nullptr)
        return;
    apr_size_t length = sizeof message;
    apr_file_write(m_pWriteEnd, &message, &length);
}

void AsyncResetHandler::run() {
    while (isRunning()) {
        unsigned char messages[MESSAGES_PER_READ];
        apr_size_t length = sizeof messages;
        if (apr_file_read(m_pReadEnd, messages, &length) != APR_SUCCESS)
            continue;
        if (std::any_of(messages, messages + length, asksForReset))
            resetSafely();
    }
}

}  // namespace orvlog

// activated_appender.h: an appender that shows when a reset reaches it.
#pragma once

#include <log4cxx/appenderskeleton.h>

#include <functional>
#include <utility>

#include "unit/record_collector.h"

// ActivatedAppender calls a function each time its options are activated; the function may throw.
class ActivatedAppender final : public log4cxx::AppenderSkeleton {
public:
    explicit ActivatedAppender(std::function<void()> onActivated) : m_fOnActivated(std::move(onActivated)) {}

    const log4cxx::helpers::Class& getClass() const override {
        static const TestAppender::TestAppenderClass type;
        return type;
    }

    void activateOptions(log4cxx::helpers::Pool&) override { m_fOnActivated(); }
    void close() override {}
    bool requiresLayout() const override { return false; }
    void append(const log4cxx::spi::LoggingEventPtr&, log4cxx::helpers::Pool&) override {}

private:
    std::function<void()> m_fOnActivated;
};

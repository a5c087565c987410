// async_reset_handler.h: a thread that reopens the log files on request.
#pragma once

#include <cstdint>

#include "runtime/apr_pool.h"
#include "runtime/orvthread.h"

struct apr_file_t;

namespace orvlog {

// AsyncResetHandler calls orvlog::reset on a thread of its own. A request is one byte on a pipe, so that the requester
// never waits. One reset serves up to 16 waiting requests. When the pipe is full, a request is lost; the reset that the
// waiting ones lead to serves it as well.
//
// Life cycle: constructed, `start`, destroyed, which ends the thread. `reset`, `flush` and `send` may be called from
// any thread, and before `start`: the request then waits in the pipe. Only the constructor throws, when memory is
// exhausted.
class AsyncResetHandler : private ORVThread {
public:
    // Message is the byte on the pipe.
    enum class Message : uint8_t {
        WakeUp = 0,  // ends the wait, so that a stop is noticed
        Reset = 1,
        Flush = 2  // the same as Reset
    };

    // AsyncResetHandler makes the pipe. If that fails, `start` returns false and requests do nothing.
    AsyncResetHandler();
    ~AsyncResetHandler() override;

    // start starts the thread and waits until it runs. It returns false if the pipe or the thread couldn't be made, or
    // if it was called before.
    bool start();

    // reset and flush request a reset of all appenders.
    void reset();
    void flush();

    // send writes one message.
    void send(Message message);

private:
    void run() override;

    APRPool m_oPool;
    apr_file_t* m_pReadEnd = nullptr;  // null without a pipe, as the other end is
    apr_file_t* m_pWriteEnd = nullptr;
};

}  // namespace orvlog

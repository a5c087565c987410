// async_reset_handler.h: a thread that reopens the log files on request.
#pragma once

#include <cstdint>

#include "runtime/apr_pool.h"
#include "runtime/orvthread.h"

struct apr_file_t;

namespace orvlog {

// AsyncResetHandler calls orvlog::reset on a thread of its own. A request is one byte on a pipe, so that the requester
// never waits; one reset serves all requests that wait. When the pipe is full a request is lost, which does no harm.
//
// Life cycle: constructed, `start`, destroyed, which ends the thread. `reset`, `flush` and `send` may be called from
// any thread, and before `start`: the request then waits in the pipe. Nothing here throws but the construction, when
// memory is exhausted.
class AsyncResetHandler : private ORVThread {
public:
    // Message is the byte on the pipe.
    enum class Message : uint8_t {
        WakeUp = 0,  // only look whether to stop
        Reset = 1,
        Flush = 2  // acts as Reset does
    };

    // AsyncResetHandler makes the pipe. If that fails, `start` gives false and requests do nothing.
    AsyncResetHandler();
    ~AsyncResetHandler() override;

    // start starts the thread and waits until it is there; false if there is no pipe or no thread, or if it was started
    // before.
    bool start();

    // reset and flush ask for a reset of all appenders.
    void reset();
    void flush();

    // send writes one message.
    void send(Message message);

private:
    void run() override;

    APRPool m_oPool;
    apr_file_t* m_pReadEnd = nullptr;
    apr_file_t* m_pWriteEnd = nullptr;
};

}  // namespace orvlog

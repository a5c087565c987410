/* orvlog_c.h: making a log record from code without log4cxx's headers, in C too. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* orvlog_logger_log makes one record. `logger` is the log4cxx::Logger* of a LoggerPtr, `level` the integer of a
 * log4cxx level (log4cxx::Level::INFO_INT and so on), the rest what printf takes. A text of more than 511 bytes is cut
 * there. Nothing happens when the logger is off for the level. A failure is reported on standard error. Any thread may
 * call it. */
void orvlog_logger_log(void* logger, int level, const char* file, const char* function, int line, const char* format,
                       ...);

#ifdef __cplusplus
}
#endif

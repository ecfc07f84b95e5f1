// A process's own sink for Android log messages, for the programs around the library (rtctl, the
// example clients, the tests, the fuzzer) that print or capture what the library logs.
//
// liblog's public way to do this is __android_log_set_logger, but the logger function's type has
// changed between liblog versions: older ones (Debian's port) call it with a logger-data struct
// and the message, newer ones (the platform's) with one log-message struct that holds the message.
// Both structs carry `priority` and `tag`. The adapters below are picked by the type that this
// liblog's header declares, so a sink written here builds against either, without naming a
// version's struct.
#ifndef QXRT_LOG_SINK_H
#define QXRT_LOG_SINK_H

#include <android/log.h>

namespace qx_log_sink {

// Receives every message of this process: priority (android_LogPriority), tag (may be NULL) and
// the message text as the library wrote it.
using Sink = void (*)(int priority, const char *tag, const char *message);

inline Sink &current() {
    static Sink sink = nullptr;
    return sink;
}

template <typename Logger>
struct Adapter;

// void logger(const struct __android_logger_data *data, const char *message)
template <typename Data>
struct Adapter<void (*)(const Data *, const char *)> {
    static void call(const Data *data, const char *message) {
        if (Sink sink = current()) sink(data->priority, data->tag, message);
    }
};

// void logger(const struct __android_log_message *log_message)
template <typename Message>
struct Adapter<void (*)(const Message *)> {
    static void call(const Message *log_message) {
        if (Sink sink = current())
            sink(log_message->priority, log_message->tag, log_message->message);
    }
};

// Sends every later message of this process to sink instead of liblog's default logger.
inline void set(Sink sink) {
    current() = sink;
    __android_log_set_logger(&Adapter<__android_logger_function>::call);
}

// Gives the messages back to liblog's default logger: logd on a device, stderr on a host.
inline void restore_default() {
#ifdef __ANDROID__
    __android_log_set_logger(__android_log_logd_logger);
#else
    __android_log_set_logger(__android_log_stderr_logger);
#endif
    current() = nullptr;
}

}  // namespace qx_log_sink

#endif

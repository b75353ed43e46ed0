#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

namespace zu3host {

/** An answer of the bus, or an error. */
class BusAnswer {
public:
    BusAnswer() = default;
    /** Shares the message. */
    explicit BusAnswer(sd_bus_message* message)
        : message_(sd_bus_message_ref(message), sd_bus_message_unref)
    {
    }

    /** Null if no answer came in time, or if the connection is broken. */
    sd_bus_message* message() const { return message_.get(); }
    /** Whether it is an answer, not an error. */
    explicit operator bool() const;
    /** The name of an error, such as "org.freedesktop.DBus.Error.ServiceUnknown"; empty if there is none. */
    std::string error_name() const;
    /** The text of the error; may be empty. */
    std::string error_text() const;

private:
    std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)> message_{nullptr,
                                                                              sd_bus_message_unref};
};

/**
 * A connection to the user's message bus. Every wait is limited, even if the bus or a service
 * hangs. One thread at a time.
 */
class MessageBus {
public:
    using Milliseconds = std::chrono::milliseconds;
    using Fill = std::function<int(sd_bus_message*)>;
    using Signal = std::function<void(sd_bus_message*)>;

    MessageBus() = default;
    ~MessageBus();
    MessageBus(const MessageBus&) = delete;
    MessageBus& operator=(const MessageBus&) = delete;

    /** 0, or an errno value if there is no bus or it did not answer in time. */
    int connect(Milliseconds patience);
    /** This connection's name, such as ":1.42". */
    std::string unique_name() const;
    /** Calls a method of a service; `fill` appends its arguments, negative = errno. */
    BusAnswer call(const std::string& service, const std::string& path,
                   const std::string& interface, const char* method, const Fill& fill,
                   Milliseconds patience);
    /** Sends a call; passes its answer, an error after `patience`, to `answered`. */
    bool call_later(const std::string& service, const std::string& path,
                    const std::string& interface, const char* method, const Fill& fill,
                    Milliseconds patience, Signal answered);
    /** Subscribes to the signals that match the rule. */
    bool listen(const char* rule, Signal received);
    /** Handles messages until `condition` is true; false after `patience` or without a bus. */
    bool run_until(const std::function<bool()>& condition, Milliseconds patience);
    /** Handles the messages that have arrived. */
    void process();
    /** The connection ended. */
    bool broken() const { return broken_; }

private:
    struct Receiver {
        Signal receive;
        sd_bus_slot* slot = nullptr;
    };
    static int pass_on(sd_bus_message* message, void* receiver, sd_bus_error*);
    Receiver& add_receiver(Signal receive);
    bool step(Milliseconds patience);

    sd_bus* bus_ = nullptr;
    bool broken_ = false;
    std::vector<std::unique_ptr<Receiver>> receivers_;
};

} // namespace zu3host

#include "capture/portal/message_bus.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>

namespace zu3host {

namespace {

using std::chrono::milliseconds;

/**
 * Waits are counted in slices, not by the clock: a process that was stopped reads the answer before
 * it checks the limit.
 */
constexpr milliseconds slice(50);

uint64_t microseconds(milliseconds time)
{
    return static_cast<uint64_t>(std::chrono::microseconds(time).count());
}

} // namespace

BusAnswer::operator bool() const
{
    return message_ && !sd_bus_message_is_method_error(message_.get(), nullptr);
}

std::string BusAnswer::error_name() const
{
    const sd_bus_error* const error = message_ ? sd_bus_message_get_error(message_.get()) : nullptr;
    return error && error->name ? error->name : "";
}

std::string BusAnswer::error_text() const
{
    const sd_bus_error* const error = message_ ? sd_bus_message_get_error(message_.get()) : nullptr;
    return error && error->message ? error->message : "";
}

MessageBus::~MessageBus()
{
    for (const auto& receiver : receivers_)
        sd_bus_slot_unref(receiver->slot);
    if (!bus_)
        return;
    // without a flush, which would wait for a bus that hangs
    sd_bus_close(bus_);
    sd_bus_unref(bus_);
}

int MessageBus::connect(milliseconds patience)
{
    if (const int result = sd_bus_open_user(&bus_); result < 0)
        return -result;
    if (run_until([this] { return sd_bus_is_ready(bus_) > 0; }, patience))
        return 0;
    return broken_ ? ECONNREFUSED : ETIMEDOUT;
}

std::string MessageBus::unique_name() const
{
    const char* name = nullptr;
    return sd_bus_get_unique_name(bus_, &name) >= 0 ? name : "";
}

int MessageBus::pass_on(sd_bus_message* message, void* receiver, sd_bus_error*)
{
    // a copy: the receiver may be removed meanwhile
    const Signal receive = static_cast<Receiver*>(receiver)->receive;
    receive(message);
    return 0;
}

MessageBus::Receiver& MessageBus::add_receiver(Signal receive)
{
    receivers_.push_back(std::make_unique<Receiver>(Receiver{std::move(receive)}));
    return *receivers_.back();
}

bool MessageBus::call_later(const std::string& service, const std::string& path,
                            const std::string& interface, const char* method, const Fill& fill,
                            milliseconds patience, Signal answered)
{
    sd_bus_message* made = nullptr;
    if (sd_bus_message_new_method_call(bus_, &made, service.c_str(), path.c_str(),
                                       interface.c_str(), method) < 0)
        return false;
    const std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)> call(
        made, sd_bus_message_unref);
    if (fill && fill(call.get()) < 0)
        return false;
    Receiver& receiver = add_receiver(std::move(answered));
    if (sd_bus_call_async(bus_, &receiver.slot, call.get(), pass_on, &receiver,
                          microseconds(patience)) >= 0)
        return true;
    receivers_.pop_back();
    return false;
}

BusAnswer MessageBus::call(const std::string& service, const std::string& path,
                           const std::string& interface, const char* method, const Fill& fill,
                           milliseconds patience)
{
    BusAnswer answer;
    const size_t before = receivers_.size();
    if (!call_later(service, path, interface, method, fill, patience + 10 * slice,
                    [&answer](sd_bus_message* message) { answer = BusAnswer(message); }))
        return answer;
    run_until([&answer] { return answer.message() != nullptr; }, patience);
    // cancels a late answer
    for (size_t i = before; i < receivers_.size(); ++i)
        sd_bus_slot_unref(receivers_[i]->slot);
    receivers_.resize(before);
    return answer;
}

bool MessageBus::listen(const char* rule, Signal received)
{
    Receiver& receiver = add_receiver(std::move(received));
    if (sd_bus_add_match_async(bus_, &receiver.slot, rule, pass_on, nullptr, &receiver) >= 0)
        return true;
    receivers_.pop_back();
    return false;
}

bool MessageBus::run_until(const std::function<bool()>& condition, milliseconds patience)
{
    auto left = patience / slice;
    while (!condition()) {
        if (broken_ || left <= 0)
            return false;
        if (!step(slice))
            --left;
    }
    return true;
}

void MessageBus::process()
{
    while (bus_ && !broken_ && step(milliseconds(0))) {
    }
}

/** Handles one message, after a wait for it; false if none came. */
bool MessageBus::step(milliseconds patience)
{
    const int handled = sd_bus_process(bus_, nullptr);
    if (handled != 0) {
        broken_ = handled < 0;
        return handled > 0;
    }
    if (patience.count() == 0)
        return false;
    const int events = sd_bus_get_events(bus_);
    uint64_t due = UINT64_MAX;
    if (events < 0 || sd_bus_get_timeout(bus_, &due) < 0) {
        broken_ = true;
        return false;
    }
    pollfd wait{sd_bus_get_fd(bus_), static_cast<short>(events), 0};
    return poll(&wait, 1, static_cast<int>(patience.count())) > 0;
}

} // namespace zu3host

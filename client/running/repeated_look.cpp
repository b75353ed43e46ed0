#include "running/repeated_look.h"

#include <system_error>
#include <utility>

namespace client {

RepeatedLook::RepeatedLook(std::function<bool()> look) : look_(std::move(look))
{
    try {
        thread_ = std::jthread([this](const std::stop_token& ended) {
            std::unique_lock lock(mutex_);
            while (!wake_.wait_for(lock, ended, interval, [] { return false; }) &&
                   !ended.stop_requested())
                if (!look_())
                    return;
        });
    } catch (const std::system_error&) {
        // As documented: the call then gets all the time that it needs.
    }
}

} // namespace client

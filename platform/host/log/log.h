#pragma once

#include <android/log.h>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace zu3host {

/**
 * Selects the lines of the log by logcat's filter expressions: words "tag:priority" separated by
 * blanks or commas, the priority one of V D I W E F S. "*" means all other tags, a tag without a
 * priority all of its lines; the later of two words for one tag counts. The default for other tags
 * is warnings and errors.
 */
class LogFilter {
public:
    /** Ignores invalid words; `expressions` may be null. */
    explicit LogFilter(const char* expressions);

    bool shows(int priority, std::string_view tag) const;

private:
    struct Rule {
        std::string tag;
        int least;
    };
    void add(std::string_view word);

    std::vector<Rule> rules_;
    int least_of_others_ = ANDROID_LOG_WARN;
};

/**
 * The letter of a priority, in a line and in an expression; those outside the range have the
 * nearest one's.
 */
char priority_letter(int priority);

/** Waits until the lines so far are written, and no longer than `patience`. */
void flush_log(std::chrono::milliseconds patience);

} // namespace zu3host

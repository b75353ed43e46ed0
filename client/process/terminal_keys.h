#pragma once

#include <functional>

namespace client {

/**
 * Single keys from the terminal on standard input, without Enter and without an echo; Ctrl-C still
 * raises SIGINT. The terminal has its own modes again after the destruction of this object, after
 * a signal that ends the program, and while the program is stopped. SIGKILL alone leaves it
 * changed. One object at a time.
 */
class TerminalKeys {
public:
    /** @param wanted false: the terminal stays untouched, and no key arrives */
    explicit TerminalKeys(bool wanted);
    TerminalKeys(const TerminalKeys&) = delete;
    TerminalKeys& operator=(const TerminalKeys&) = delete;
    ~TerminalKeys();

    /**
     * Follows the shell: the keys are read only while this is the terminal's foreground job. Call
     * it several times a second.
     */
    void look();
    /** To poll for POLLIN; -1 = no key can arrive now. */
    int fd() const;
    /** Calls `handle` with each key that was pressed. */
    void read_keys(const std::function<void(char)>& handle);

private:
    bool wanted_;
};

} // namespace client

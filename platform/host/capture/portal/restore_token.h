#pragma once

#include <string>

namespace zu3host {

/**
 * The token with which the portal repeats the user's choice without a dialog: one line in
 * "$XDG_STATE_HOME/screenrecord/portal-token", ~/.local/state by default. Mode 0600.
 */
class RestoreToken {
public:
    /** The token of this user, by the environment. */
    RestoreToken();
    /** The token in that file; an empty path keeps none. */
    explicit RestoreToken(std::string path) : path_(std::move(path)) {}

    /** The kept token; empty if there is none or its file is not trusted. */
    std::string read() const;
    /**
     * Replaces it in one step; an empty token removes it.
     * @return 0, or an errno value, in which case the old token stays
     */
    int write(const std::string& token) const;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

} // namespace zu3host

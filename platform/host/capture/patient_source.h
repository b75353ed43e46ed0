#pragma once

#include "capture/picture_source.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace zu3host {

/** A source whose grab may wait without limit for a server. */
class WaitingSource : public PictureSource {
public:
    /**
     * The picture of the last grab, if it is known without a wait to be unchanged; nullopt: grab.
     * From any thread, one at a time.
     */
    virtual std::optional<BgraImage> glance(const GrabRequest&) { return std::nullopt; }
    /** Ends a waiting grab; it and all later ones return no picture. From any thread. */
    virtual void cut() = 0;
};

/** Ends the waits of all patient sources that are under way. Any thread. */
void give_up_displays();

/**
 * Grabs, on a separate thread, from a source whose grab may block without limit. If a glance is
 * enough, the caller's thread makes it, so no other wakes up. A grab here times out while the
 * source's continues; a later grab here returns that picture. The statistics count the time without
 * an answer. One thread at a time.
 */
class PatientSource : public PictureSource {
public:
    using Open = std::function<std::unique_ptr<WaitingSource>()>;
    /** for a server; a user who must answer a dialog needs longer */
    static constexpr std::chrono::milliseconds usual_limit{5000};

    /**
     * Opens the source on the thread. Null when `open` returns null, or does not return within the
     * limit; it may still return later.
     * @param name of the source, for the log
     */
    static std::unique_ptr<PatientSource> open(const std::string& name, Open open,
                                               std::chrono::milliseconds limit = usual_limit);
    /** Ends the source's grab if that still waits. */
    ~PatientSource() override;
    PatientSource(const PatientSource&) = delete;
    PatientSource& operator=(const PatientSource&) = delete;

    std::optional<BgraImage> grab(const GrabRequest& request) override;
    bool awaits_changes() const override { return awaits_changes_; }

private:
    struct Shared;

    PatientSource(std::string name, std::shared_ptr<Shared> shared, std::thread thread,
                  bool awaits_changes)
        : name_(std::move(name)), awaits_changes_(awaits_changes), shared_(std::move(shared)),
          thread_(std::move(thread))
    {
    }
    void note_silence();
    void note_answer();

    const std::string name_;
    const bool awaits_changes_;
    // shared with the thread, which may come back late from an opening
    const std::shared_ptr<Shared> shared_;
    std::thread thread_;
    uint32_t silent_ms_ = 0;
};

} // namespace zu3host

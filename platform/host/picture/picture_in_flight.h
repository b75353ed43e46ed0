#pragma once

#include "base/changed_parts.h"
#include "base/picture_layout.h"

#include <cstdint>
#include <memory>
#include <optional>

// All that capture, encoder and multiplexer know of each other beside the contract, whose records
// carry neither a due time, nor the owner of a picture's memory, nor an exact size, nor a limit for
// the encoder. docs/picture_in_flight.md draws it. Every function here may be called from any
// thread.

namespace zu3host {

/** What a callback leaves to the thread that made it. */
class AfterCallback {
public:
    virtual void after_callback() = 0;

protected:
    ~AfterCallback() = default;
};

/** The picture in a callback of the contract: captured by the capture, encoded by the encoder. */
struct PictureInFlight {
    enum class Stage { captured, encoded };

    Stage stage = Stage::captured;
    /**
     * Microseconds of the monotonic clock: the due time of a captured picture, exactly on the grid
     * of the frame rate. A picture from a file keeps the time stamp that came with it.
     */
    uint64_t time_us = 0;
    /** The encoder may read the picture here. Null for a picture from a file. */
    uint8_t* data = nullptr;
    PictureLayout layout{};
    /** Keeps the memory at `data` and the rectangles of `changed` alive. */
    std::shared_ptr<const void> memory{};
    /** Pictures with the same number are identical; 0 = not known. */
    uint64_t serial = 0;
    /**
     * Every pixel outside these parts (in pixels of this picture) equals that of the earlier one.
     * The rectangles live as long as the picture at `data` is in use or leased.
     */
    ChangedParts changed{};
    /** A renderer drew over it in the callback; set by zu3_host_picture_drawn_on(). */
    mutable bool drawn_on = false;
    /** A multiplexer stored the whole access unit in the callback. */
    mutable bool multiplexed = false;
    /**
     * Set by the encoder for a picture that takes less time than another thread needs to wake up.
     * The capture calls it after the callback, as a callback of no picture.
     */
    mutable std::shared_ptr<AfterCallback> afterwards{};
};

/** While it lives, this thread is in a callback with `picture`, which it refers to. Do not nest. */
class PictureInCallback {
public:
    explicit PictureInCallback(const PictureInFlight& picture);
    ~PictureInCallback();
    PictureInCallback(const PictureInCallback&) = delete;
    PictureInCallback& operator=(const PictureInCallback&) = delete;
};

/** The picture in the capture's callback on this thread; null outside of one. */
const PictureInFlight* captured_picture_in_callback();
/** The picture in the encoder's callback on this thread; null outside of one. */
const PictureInFlight* encoded_picture_in_callback();

/**
 * Leases: nothing may overwrite a leased picture. The encoder leases a picture that it borrowed, or
 * that lies in its inject buffer, until it has encoded it, because the library returns the buffer
 * to the capture earlier. The capture leases the pictures in use in an inject buffer, so that the
 * next start does not overwrite them after a stop. Leases of one address are counted; each needs a
 * return. May throw std::bad_alloc beyond 64 leases.
 */
void lease_picture(const uint8_t* picture);
/** Ends one lease; does nothing if there is none. */
void return_picture(const uint8_t* picture);
bool picture_is_leased(const uint8_t* picture);

/** While it lives, exact_size_of_open_encoder() knows the size. */
class OpenEncoderSize {
public:
    explicit OpenEncoderSize(PictureSize size);
    ~OpenEncoderSize();
    OpenEncoderSize(const OpenEncoderSize&) = delete;
    OpenEncoderSize& operator=(const OpenEncoderSize&) = delete;

private:
    const PictureSize size_;
};

/**
 * The exact size of the newest open encoder whose pictures have the layout of `width16` x
 * `height32`. The contract tells the capture the rounded size only.
 */
std::optional<PictureSize> exact_size_of_open_encoder(uint32_t width16, uint32_t height32);

/**
 * The size of the stream of an encoder that is opened with `opened`: what zu3_host_exact_size()
 * asked for, if that has the same layout, otherwise `opened`. Either way the wish is used up.
 */
PictureSize take_exact_size(PictureSize opened);

/**
 * The bits per second that one multiplexer of constant rate leaves for pictures. While it lives,
 * the process's rate ceiling is the lowest of all budgets. One thread at a time uses a budget.
 */
class RateBudget {
public:
    RateBudget() = default;
    RateBudget(const RateBudget&) = delete;
    RateBudget& operator=(const RateBudget&) = delete;
    ~RateBudget() { set(0); }

    /** 0 = no limit. The first call with another value may throw std::bad_alloc. */
    void set(uint64_t bits_per_second);
};

/**
 * The most bits per second that a recording's encoder may produce, averaged over less than a
 * second; 0 = no ceiling but its own. Above it a stream of constant rate would become late without
 * bound. May change while encoders run.
 */
uint64_t rate_ceiling();

} // namespace zu3host

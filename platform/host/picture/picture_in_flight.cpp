#include "picture/picture_in_flight.h"

#include "base/border.h"

#include <algorithm>
#include <atomic>
#include <common/never_destroyed.h>
#include <map>
#include <mutex>
#include <utility>
#include <vector>
#include <zu3_host/drawn_picture.h>
#include <zu3_host/exact_size.h>

namespace zu3host {
namespace {

thread_local const PictureInFlight* in_callback = nullptr;

const PictureInFlight* in_callback_at(PictureInFlight::Stage stage)
{
    return in_callback && in_callback->stage == stage ? in_callback : nullptr;
}

/** An inject buffer has a handful of pictures: searching a vector is fast enough. */
struct Leases {
    Leases() { pictures.reserve(64); }
    std::mutex mutex;
    /** one entry a lease */
    std::vector<const uint8_t*> pictures;
};

Leases& leases()
{
    static common::NeverDestroyed<Leases> all;
    return *all;
}

struct Sizes {
    std::mutex mutex;
    /** of open encoders, oldest first */
    std::vector<const PictureSize*> open;
    /** for the next encoder; 0x0 = nothing asked for */
    PictureSize asked_for{0, 0};
};

Sizes& sizes()
{
    static common::NeverDestroyed<Sizes> all;
    return *all;
}

struct Budgets {
    std::mutex mutex;
    std::map<const RateBudget*, uint64_t> bits_per_second;
    /** the lowest; read without the mutex, for each picture */
    std::atomic<uint64_t> ceiling{0};
};

Budgets& budgets()
{
    static common::NeverDestroyed<Budgets> all;
    return *all;
}

} // namespace

PictureInCallback::PictureInCallback(const PictureInFlight& picture)
{
    in_callback = &picture;
}

PictureInCallback::~PictureInCallback()
{
    in_callback = nullptr;
}

const PictureInFlight* captured_picture_in_callback()
{
    return in_callback_at(PictureInFlight::Stage::captured);
}

const PictureInFlight* encoded_picture_in_callback()
{
    return in_callback_at(PictureInFlight::Stage::encoded);
}

void lease_picture(const uint8_t* picture)
{
    Leases& all = leases();
    const std::lock_guard lock(all.mutex);
    all.pictures.push_back(picture);
}

void return_picture(const uint8_t* picture)
{
    Leases& all = leases();
    const std::lock_guard lock(all.mutex);
    const auto found = std::ranges::find(all.pictures, picture);
    if (found == all.pictures.end())
        return;
    *found = all.pictures.back();
    all.pictures.pop_back();
}

bool picture_is_leased(const uint8_t* picture)
{
    Leases& all = leases();
    const std::lock_guard lock(all.mutex);
    return std::ranges::find(all.pictures, picture) != all.pictures.end();
}

OpenEncoderSize::OpenEncoderSize(PictureSize size) : size_(size)
{
    const std::lock_guard lock(sizes().mutex);
    sizes().open.push_back(&size_);
}

OpenEncoderSize::~OpenEncoderSize()
{
    const std::lock_guard lock(sizes().mutex);
    std::erase(sizes().open, &size_);
}

std::optional<PictureSize> exact_size_of_open_encoder(uint32_t width16, uint32_t height32)
{
    const std::lock_guard lock(sizes().mutex);
    const std::vector<const PictureSize*>& open = sizes().open;
    const auto newest = std::find_if(open.rbegin(), open.rend(), [&](const PictureSize* size) {
        return PictureLayout::of(size->width, size->height) == PictureLayout{width16, height32};
    });
    return newest == open.rend() ? std::nullopt : std::optional(**newest);
}

PictureSize take_exact_size(PictureSize opened)
{
    const std::lock_guard lock(sizes().mutex);
    const PictureSize exact = std::exchange(sizes().asked_for, {0, 0});
    const PictureLayout rounded = PictureLayout::of(exact.width, exact.height);
    return rounded == PictureLayout{opened.width, opened.height} ? exact : opened;
}

void RateBudget::set(uint64_t bits_per_second)
{
    Budgets& all = budgets();
    const std::lock_guard lock(all.mutex);
    // A change needs no memory, so that it cannot fail.
    if (bits_per_second != 0)
        all.bits_per_second.insert_or_assign(this, bits_per_second);
    else if (all.bits_per_second.erase(this) == 0)
        return;
    uint64_t lowest = 0;
    for (const auto& [budget, bits] : all.bits_per_second)
        lowest = lowest == 0 ? bits : std::min(lowest, bits);
    all.ceiling.store(lowest, std::memory_order_relaxed);
}

uint64_t rate_ceiling()
{
    return budgets().ceiling.load(std::memory_order_relaxed);
}

} // namespace zu3host

HOST_EXPORT void zu3_host_exact_size(uint32_t width, uint32_t height)
{
    using namespace zu3host;
    if (in_encoder_range(width, height) && width % 2 == 0 && height % 2 == 0) {
        const std::lock_guard lock(sizes().mutex);
        sizes().asked_for = {width, height};
    }
}

HOST_EXPORT void zu3_host_picture_drawn_on(void)
{
    if (const zu3host::PictureInFlight* picture = zu3host::captured_picture_in_callback())
        picture->drawn_on = true;
}

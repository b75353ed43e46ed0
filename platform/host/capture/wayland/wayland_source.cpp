#include "capture/wayland/wayland_source.h"

#include <algorithm>
#include <android/log.h>
#include <utility>

namespace zu3host {

namespace {

using State = FrameCopy::State;

std::chrono::nanoseconds refresh_interval(int32_t refresh_mhz)
{
    constexpr int64_t usual_mhz = 60'000;
    constexpr int64_t nanoseconds_times_1000 = 1'000'000'000'000;
    return std::chrono::nanoseconds(nanoseconds_times_1000 /
                                    (refresh_mhz > 0 ? refresh_mhz : usual_mhz));
}

} // namespace

WaylandSource::WaylandSource(const ScreenHost& host, std::unique_ptr<WaylandSession> session,
                             const WaylandOutput& output)
    : host_(host), session_(std::move(session)), output_id_(output.id), output_name_(output.name),
      refresh_(refresh_interval(output.refresh_mhz)), changes_(refresh_)
{
}

ScreenOpening WaylandSource::open(const ScreenHost& host, const std::string& monitor)
{
    WaylandProblem problem;
    auto session = WaylandSession::open(Clock::time_point::max(), problem);
    if (session)
        problem = session->problem();
    const WaylandOutput* chosen = nullptr;
    if (problem.failure == ScreenFailure::none)
        chosen = session->choose_output(monitor, problem);
    if (!chosen)
        return {.failure = problem.failure, .reason = std::move(problem.reason)};

    const size_t outputs = session->outputs().size();
    std::unique_ptr<WaylandSource> source(new WaylandSource(host, std::move(session), *chosen));
    constexpr bool with_pointer = true;
    if (!source->prepare_frame(with_pointer))
        return {.failure = source->refusal_.failure, .reason = source->refusal_.reason};
    if (outputs > 1 && monitor.empty())
        host.log(ANDROID_LOG_WARN, ("The Wayland session has " + std::to_string(outputs) +
                                    " outputs, of which the first is captured: " +
                                    source->output_name_ + ". --monitor or ZU3_MONITOR names one.")
                                       .c_str());
    ScreenOpening opening{.name = "the Wayland output " + source->output_name_};
    if (const WaylandOutput* const output = source->output())
        opening.refresh_mhz = static_cast<uint32_t>(output->refresh_mhz);
    opening.source = std::move(source);
    return opening;
}

std::optional<BgraImage> WaylandSource::grab(const GrabRequest& request)
{
    // an output may be resized between a layout and its copy
    constexpr int attempts = 3;
    note_pace();
    session_->connection().take_events();
    if (image_has_pointer_ != request.pointer)
        image_ = {};
    if (frame_ && frame_->shows_pointer() != request.pointer)
        frame_.reset();
    for (int attempt = 0; attempt < attempts && !gone(); ++attempt)
        if (const auto image = try_grab(request)) {
            returned_ = image->serial;
            return image;
        }
    if (gone())
        note_loss();
    else
        note_refusal();
    return std::nullopt;
}

void WaylandSource::note_pace()
{
    // The mean of several intervals, since an early grab follows a late one.
    const auto now = Clock::now();
    const size_t known = std::min(grabs_, grab_times_.size());
    if (known > 0)
        pace_ = (now - grab_times_[(grabs_ - known) % grab_times_.size()]) / known;
    grab_times_[grabs_++ % grab_times_.size()] = now;
}

std::optional<BgraImage> WaylandSource::try_grab(const GrabRequest& request)
{
    const bool updated = update(request);
    if (updated && frame_)
        wait_for_life();
    if (!updated || gone() || !image_.serial) {
        frame_.reset();
        return std::nullopt;
    }
    // The layout of the next copy arrives before the next grab.
    if (!frame_)
        start_frame(request.pointer);
    session_->connection().flush();
    return image_;
}

bool WaylandSource::update(const GrabRequest& request)
{
    const auto due = std::max(request.due, Clock::now());
    const auto latest = latest_answer(due);
    while (!gone()) {
        if (is_in(State::complete))
            take_copy();
        const auto end = has_news() && !moves() ? due : latest;
        const auto now = Clock::now();
        if ((has_news() && changes_.is_last_before(due)) || now >= end)
            return true;
        if (now >= next_question(due) && !ask_for_copy(request.pointer))
            return false;
        const auto pause = is_in(State::asked) ? end : std::min(end, next_question(due));
        session_->connection().wait_until(
            pause, [this] { return gone() || is_in(State::complete) || is_in(State::failed); });
        if (is_in(State::failed)) {
            refusal_ = frame_->problem();
            return false;
        }
    }
    return false;
}

WaylandSource::Clock::time_point WaylandSource::latest_answer(Clock::time_point due) const
{
    if (!image_.serial)
        return Clock::time_point::max();
    // The compositor copies with its next frame, which a busy machine delays. The rest of the pace
    // is for what follows the grab.
    constexpr Clock::duration longest = std::chrono::milliseconds(100);
    const bool quiet = is_in(State::asked) && is_still();
    return quiet ? due : due + std::min(longest, pace_ * 3 / 4);
}

WaylandSource::Clock::time_point WaylandSource::next_question(Clock::time_point due) const
{
    const bool later = image_.serial && moves() && !is_fast();
    return later ? due - changes_.interval() / 2 : Clock::time_point::min();
}

void WaylandSource::start_frame(bool pointer)
{
    frame_ = std::make_unique<FrameCopy>(*session_, output()->proxy, pointer);
}

bool WaylandSource::prepare_frame(bool pointer)
{
    const auto refuse = [this](WaylandProblem why) {
        refusal_ = std::move(why);
        return false;
    };
    const WaylandProblem ended{ScreenFailure::failed,
                               "the Wayland compositor ended the connection"};
    if (gone())
        return refuse(ended);
    if (!frame_ || is_in(State::failed))
        start_frame(pointer);
    session_->connection().wait([this] { return gone() || !is_in(State::announced); });
    if (gone())
        return refuse(ended);
    if (WaylandProblem problem = frame_->problem(); problem.failure != ScreenFailure::none)
        return refuse(std::move(problem));
    if (!next_ || next_->layout() != frame_->layout())
        next_ = CopyBuffer::make(session_->shm(), frame_->layout());
    return next_ || refuse({ScreenFailure::failed, "memory ran out for a copy of the output"});
}

bool WaylandSource::ask_for_copy(bool pointer)
{
    if (is_in(State::asked))
        return true;
    if (!prepare_frame(pointer))
        return false;
    asked_ = Clock::now();
    frame_->ask(*next_, image_.serial != 0);
    return true;
}

void WaylandSource::take_copy()
{
    const auto frame = std::move(frame_);
    copied_ = Clock::now();
    changes_.note(copied_, frame->shown());
    prompt_copies_ = copied_ - asked_ < refresh_ * 3 / 2 ? prompt_copies_ + 1 : 0;
    if (gone())
        return;
    std::swap(shown_, next_);
    const Orientation orientation{static_cast<uint32_t>(output()->transform) & 7,
                                  frame->is_upside_down()};
    const PictureSize copied = shown_->layout().size;
    const bool comparable = image_.serial && orientation == orientation_ && next_ &&
                            next_->layout() == shown_->layout() && !frame->is_upside_down();
    if (!comparable || image_.serial == returned_)
        parts_.clear();
    for (const PictureRectangle& part : frame->damage())
        parts_.push_back(upright_part(part, copied, orientation));
    const bool known = comparable && !frame->damage().empty() &&
                       (image_.serial == returned_ || image_.changed.since == returned_);
    image_ = upright_.of(shown_->layout(), shown_->pixels(), orientation);
    image_.serial = host_.next_image_serial();
    image_.changed = {known ? returned_ : 0, parts_};
    image_has_pointer_ = frame->shows_pointer();
    orientation_ = orientation;
}

void WaylandSource::wait_for_life()
{
    constexpr auto longest = std::chrono::milliseconds(500);
    if (!is_in(State::asked))
        return;
    const auto now = Clock::now();
    if (now - asked_for_answer_ < longest)
        return;
    if (session_->answer_is_missing()) {
        session_->connection().wait(
            [this] { return gone() || !session_->answer_is_missing() || !is_in(State::asked); });
        return;
    }
    session_->ask_for_answer();
    asked_for_answer_ = now;
}

void WaylandSource::note_loss()
{
    if (std::exchange(told_of_loss_, true) || session_->connection().was_cut())
        return;
    const std::string what = session_->connection().lost()
                                 ? "The Wayland compositor went away"
                                 : "The Wayland output " + output_name_ + " was removed";
    host_.log(ANDROID_LOG_ERROR, (what + ": there are no more pictures. "
                                         "Start the recording again when it is back.")
                                     .c_str());
    host_.note_lost_display();
}

void WaylandSource::note_refusal()
{
    if (!std::exchange(told_of_refusal_, true))
        host_.log(ANDROID_LOG_WARN, ("Pictures are missing: " + refusal_.reason + ".").c_str());
}

} // namespace zu3host

#include "encoder/x264_encoder.h"

#include "base/host_log.h"
#include "base/threads.h"
#include "picture/picture_in_flight.h"
#include "statistics/counters.h"

#include <algorithm>
#include <utility>

namespace zu3host {
namespace {

// A picture counts as coarser because of the ceiling if x264 is this far ahead of it, and has
// raised the rate factor by more than a barely visible step. At the best qualities the factor alone
// is no proof, since x264 then aims below its smallest quantizer.
constexpr uint64_t parts_of_second_ahead = 10;
constexpr double hardly_visible = 1;
// About 50 dB (docs/measurements/repeated_pictures.md).
constexpr double invisible_quantizer = 12;

EncoderRate under_process_ceiling(EncoderRate rate)
{
    const uint64_t most = rate_ceiling() / 1000;
    if (rate.as_needed && rate_ceiling() != 0 && most < static_cast<uint64_t>(rate.kilobits))
        rate.kilobits = std::max(static_cast<int>(most), 1);
    return rate;
}

} // namespace

std::unique_ptr<X264Encoder> X264Encoder::open(const EncoderSettings& settings)
{
    std::unique_ptr<X264Encoder> encoder(new X264Encoder(settings));
    return encoder->reopen(under_process_ceiling(settings.rate)) ? std::move(encoder) : nullptr;
}

bool X264Encoder::reopen(EncoderRate rate)
{
    x264_param_t parameters = x264_parameters_of(settings_, content_, log_);
    zu3host::set_rate(parameters, rate);
    parameters.analyse.b_mb_info = 1;
    // The same fullness as in the previous encoder, if there was one.
    const double ahead = static_cast<double>(bits_ahead_) / 1000 / parameters.rc.i_vbv_buffer_size;
    parameters.rc.f_vbv_buffer_init = static_cast<float>(std::clamp(1 - ahead, 0.1, 0.9));
    finer_.resize(size_t{settings_.layout.stride / 16} * (settings_.layout.lines / 16));
    const ThreadInheritance for_the_slice_threads;
    Handle encoder(x264_encoder_open(&parameters));
    if (!encoder) {
        HOST_LOGE("x264 refused to open an encoder of %ux%u at %u pictures per second",
                  settings_.size.width, settings_.size.height, settings_.frame_rate);
        return false;
    }
    encoder_ = std::move(encoder);
    changes_little_ = false;
    if (!reconfigure(rate))
        HOST_LOGW("x264 refused to switch off unused settings");
    applied_ = rate;
    rate_factor_ = parameters.rc.f_rf_constant;
    pictures_between_keys_ = key_frame_distance(settings_);
    repetitions_ = RepeatedPictures::into(encoder_.get());
    refinement_ = Refinement(settings_.frame_rate);
    key_quantizer_ = {};
    return true;
}

bool X264Encoder::reconfigure(EncoderRate rate)
{
    x264_param_t parameters;
    x264_encoder_parameters(encoder_.get(), &parameters);
    // x264 applies only the last call before a picture, so each call sets everything.
    leave_out_unused(parameters, content_, changes_little_);
    zu3host::set_rate(parameters, rate);
    if (x264_encoder_reconfig(encoder_.get(), &parameters) != 0)
        return false;
    applied_ = rate;
    return true;
}

void X264Encoder::follow_rate()
{
    const EncoderRate wanted = under_process_ceiling(settings_.rate);
    if (wanted == applied_)
        return;
    if (wanted.as_needed == applied_.as_needed ? reconfigure(wanted) : reopen(wanted))
        return;
    HOST_LOGE("x264 refused a new bit rate; the old one stays");
    settings_.rate = applied_;
}

void X264Encoder::follow_changes(bool little)
{
    if (std::exchange(changes_little_, little) != little && !reconfigure(applied_))
        HOST_LOGW("x264 refused other settings for pictures that change little");
}

// Most settings cannot change in an open encoder. Closes the old one first, since two at a time
// would double the memory. The new one begins with a key frame, and the next one comes at the usual
// distance from it: a film with fewer key frames has less quality at equal bits. While a photograph
// stands still its key frames are put off, and the change with them.
bool X264Encoder::follow_content(const uint8_t* picture, ChangedRectangles changed, bool repeats)
{
    const bool adapts = applied_.as_needed && settings_follow_content();
    const bool key_comes = key_due() && !repeats;
    const Content wanted = adapts ? watch_.content(key_comes, picture, changed) : content_;
    // Keeps another picture between two IDR pictures, since their idr_pic_id may be equal.
    if (encoder_ && (wanted == content_ || pictures_since_key_ == 1))
        return true;
    content_ = wanted;
    repetitions_.reset();
    encoder_.reset();
    return reopen(applied_);
}

std::optional<AccessUnit> X264Encoder::encode(uint8_t* picture, bool as_key,
                                              ChangedRectangles changed)
{
    const bool unchanged = changed && changed->empty();
    if (unchanged)
        watch_.note_unchanged();
    const bool may_skip = unchanged && !as_key;
    if (!follow_content(picture, changed, may_skip && encoder_ && may_repeat()))
        return std::nullopt;
    follow_rate();
    if (may_skip && may_repeat())
        return repeat();
    // x264 counts only the pictures that it gets, so each repetition would delay its key frames.
    as_key = as_key || key_due();
    const auto unit = encode_by_x264(picture, as_key, changed);
    if (unit)
        note(*unit, unchanged);
    if (unit && !unchanged && !unit->key)
        watch_.note(log_.counts());
    return unit;
}

AccessUnit X264Encoder::repeat()
{
    ++pictures_since_key_;
    refinement_.note_repeated();
    key_quantizer_.note_repeated();
    const std::span<uint8_t> bytes = repetitions_->repeat();
    return AccessUnit{bytes.data(), static_cast<uint32_t>(bytes.size()), false};
}

// During repetitions no time passes for x264's rate control. That is harmless if x264 owes no bits,
// which time would pay back. With a given bit rate x264 refines a picture as long as it has bits,
// so repetitions begin once the difference is invisible.
bool X264Encoder::is_settled() const
{
    if (applied_.as_needed)
        return refinement_.equal_sizes() >= Refinement::equal_sizes_until_settled &&
               bits_ahead_ == 0;
    return refinement_.equal_sizes() > 0 && log_.quantizer() <= invisible_quantizer;
}

bool X264Encoder::is_at_ceiling() const
{
    return applied_.as_needed &&
           bits_ahead_ * parts_of_second_ahead > static_cast<uint64_t>(applied_.kilobits) * 1000;
}

bool X264Encoder::may_repeat() const
{
    if (!repetitions_)
        return false;
    const bool puts_off = applied_.as_needed && !keeps_distance_;
    if (is_settled())
        return pictures_since_key_ <
               pictures_between_keys_ * (puts_off ? distances_while_still : 1);
    return applied_.as_needed && bits_ahead_ == 0 && !key_due() && refinement_.may_wait();
}

bool X264Encoder::would_repeat() const
{
    return encoder_ && under_process_ceiling(settings_.rate) == applied_ && may_repeat();
}

void X264Encoder::note(const AccessUnit& unit, bool unchanged)
{
    refinement_.note_encoded(unit.size, unit.key, unchanged);
    key_quantizer_.note_encoded(log_.quantizer(), unit.key, unchanged);
    const uint64_t bits_per_picture =
        static_cast<uint64_t>(applied_.kilobits) * 1000 / settings_.frame_rate;
    bits_ahead_ += uint64_t{unit.size} * 8;
    bits_ahead_ -= std::min(bits_ahead_, bits_per_picture);
    pictures_since_key_ = unit.key ? 1 : pictures_since_key_ + 1;
    keeps_distance_ = keeps_distance_ && !unit.key;
}

std::optional<AccessUnit> X264Encoder::encode_by_x264(uint8_t* picture, bool as_key,
                                                      ChangedRectangles changed)
{
    x264_picture_t in;
    x264_picture_init(&in);
    const int stride = static_cast<int>(settings_.layout.stride);
    in.img.i_csp = X264_CSP_NV12;
    in.img.i_plane = 2;
    in.img.plane[0] = picture;
    in.img.plane[1] = picture + settings_.layout.luma_bytes();
    in.img.i_stride[0] = in.img.i_stride[1] = stride;
    // An IDR picture, as groups are closed. With X264_TYPE_IDR x264 warns if one is due anyway.
    in.i_type = as_key ? X264_TYPE_KEYFRAME : X264_TYPE_AUTO;
    in.i_pts = next_pts_++;
    in.prop.mb_info = unchanged_.find(changed);
    follow_changes(!as_key && unchanged_.almost_all());
    if (const float finer = key_quantizer_.offset(); as_key && applied_.as_needed && finer != 0) {
        std::ranges::fill(finer_, finer);
        in.prop.quant_offsets = finer_.data();
    }
    x264_picture_t out;
    x264_nal_t* nals = nullptr;
    int count = 0;
    const int size = x264_encoder_encode(encoder_.get(), &nals, &count, &in, &out);
    if (size <= 0)
        return std::nullopt;
    if (is_at_ceiling() && out.prop.f_crf_avg > rate_factor_ + hardly_visible)
        zu3host::count(counters().pictures_coarsened);
    const bool key = out.i_type == X264_TYPE_IDR;
    if (!repetitions_) // The payloads of one call follow each other without a gap.
        return AccessUnit{nals[0].p_payload, static_cast<uint32_t>(size), key};
    // x264 predicts from a picture that is lost here, so a key frame follows.
    const uint32_t since_key = std::exchange(pictures_since_key_, pictures_between_keys_);
    const std::span<uint8_t> bytes = repetitions_->pass_on({nals, static_cast<size_t>(count)});
    pictures_since_key_ = since_key;
    return AccessUnit{bytes.data(), static_cast<uint32_t>(bytes.size()), key};
}

} // namespace zu3host

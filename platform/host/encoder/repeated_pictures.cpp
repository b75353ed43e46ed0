#include "encoder/repeated_pictures.h"

#include <algorithm>
#include <optional>

namespace zu3host {
namespace {

// x264's own set has the number 0.
constexpr uint32_t parameter_set_number = 1;

// NAL unit headers, clause 7.3.1: nal_ref_idc and nal_unit_type
constexpr uint8_t delimiter_header = NAL_AUD;
constexpr uint8_t slice_header = NAL_PRIORITY_HIGH << 5 | NAL_SLICE;
constexpr uint8_t parameter_set_header = NAL_PRIORITY_HIGHEST << 5 | NAL_PPS;

// slice_type of a picture that has slices of this type only, table 7-6
constexpr uint32_t all_slices_are_p = 5;

// Bytes of a slice in which its frame_num ends: three Exp-Golomb codes of 32 bits at most, 16 bits.
constexpr size_t slice_head = 32;

// Half of a macroblock's raw size, 4:2:0.
constexpr size_t likely_macroblock_bytes = 192;

/** The bytes behind a NAL unit's start code and header byte. */
std::span<const uint8_t> payload(const x264_nal_t& unit)
{
    const size_t start_code = unit.b_long_startcode ? 4 : 3;
    return {unit.p_payload + start_code + 1, static_cast<size_t>(unit.i_payload) - start_code - 1};
}

uint8_t header(const x264_nal_t& unit)
{
    return unit.p_payload[unit.b_long_startcode ? 4 : 3];
}

bool has_chroma_format(uint32_t profile)
{
    return profile == 100 || profile == 110 || profile == 122 || profile == 244;
}

/** Clause 7.3.2.1.1, up to seq_scaling_matrix_present_flag; whether it is 4:2:0 with flat lists. */
bool is_plain_high(RawBitReader& bits)
{
    const bool chroma_420 = bits.golomb() == 1;
    bits.golomb();
    bits.golomb();
    bits.flag();
    return !bits.flag() && chroma_420;
}

std::vector<uint8_t> parameter_set_for(uint32_t sequence)
{
    RawBitWriter bits;
    bits.golomb(parameter_set_number);
    bits.golomb(sequence);
    bits.number(0, 1); // entropy_coding_mode_flag: CAVLC
    bits.number(0, 1); // bottom_field_pic_order_in_frame_present_flag
    bits.golomb(0);    // num_slice_groups_minus1
    bits.golomb(0);    // num_ref_idx_l0_default_active_minus1
    bits.golomb(0);    // num_ref_idx_l1_default_active_minus1
    bits.number(0, 1); // weighted_pred_flag
    bits.number(0, 2); // weighted_bipred_idc
    bits.golomb(0);    // pic_init_qp_minus26
    bits.golomb(0);    // pic_init_qs_minus26
    bits.golomb(0);    // chroma_qp_index_offset
    bits.number(1, 1); // deblocking_filter_control_present_flag
    bits.number(0, 1); // constrained_intra_pred_flag
    bits.number(0, 1); // redundant_pic_cnt_present_flag
    bits.trailing_bits();
    return bits.bytes();
}

} // namespace

bool RepeatedPictures::read(std::span<const uint8_t> rbsp, Sequence& sequence)
{
    RawBitReader bits(rbsp);
    const uint32_t profile = bits.number(8);
    bits.number(16);
    sequence.id = bits.golomb();
    if (has_chroma_format(profile) && !is_plain_high(bits))
        return false;
    sequence.frame_number_bits = bits.golomb() + 4;
    const bool counts_by_frames = bits.golomb() == 2;
    const bool one_reference = bits.golomb() == 1;
    bits.flag();
    const uint32_t columns = bits.golomb() + 1, rows = bits.golomb() + 1;
    const bool frames_only = bits.flag();
    sequence.macroblocks = columns * rows;
    return counts_by_frames && one_reference && frames_only && !bits.overrun() &&
           sequence.frame_number_bits <= 16 && columns <= 1024 && rows <= 1024;
}

std::unique_ptr<RepeatedPictures> RepeatedPictures::into(x264_t* encoder)
{
    x264_nal_t* units = nullptr;
    int count = 0;
    if (x264_encoder_headers(encoder, &units, &count) <= 0)
        return nullptr;
    const std::span all(units, static_cast<size_t>(count));
    const auto set = std::find_if(all.begin(), all.end(),
                                  [](const x264_nal_t& unit) { return unit.i_type == NAL_SPS; });
    if (set == all.end())
        return nullptr;
    std::vector<uint8_t> rbsp;
    append_unescaped(rbsp, payload(*set));
    Sequence sequence{};
    if (!read(rbsp, sequence))
        return nullptr;
    return std::unique_ptr<RepeatedPictures>(new RepeatedPictures(sequence));
}

RepeatedPictures::RepeatedPictures(const Sequence& sequence)
    : sequence_(sequence), parameter_set_(parameter_set_for(sequence.id))
{
    // Memory that is not written to costs nothing, and a frame must not get lost for want of it.
    bytes_.reserve(size_t{sequence.macroblocks} * likely_macroblock_bytes);
    rbsp_.reserve(bytes_.capacity());
    slice_.reserve(slice_head);
}

uint32_t RepeatedPictures::wrapped(uint32_t frame_number) const
{
    return frame_number & ((uint32_t{1} << sequence_.frame_number_bits) - 1);
}

void RepeatedPictures::begin_unit(uint8_t header)
{
    const uint8_t start[] = {0, 0, 0, 1, header};
    bytes_.insert(bytes_.end(), std::begin(start), std::end(start));
}

std::span<uint8_t> RepeatedPictures::pass_on(std::span<const x264_nal_t> units)
{
    const bool has_parameter_set = std::any_of(
        units.begin(), units.end(), [](const x264_nal_t& unit) { return unit.i_type == NAL_PPS; });
    if (repeated_ == 0 && !has_parameter_set)
        return as_they_are(units);
    bytes_.clear();
    for (const x264_nal_t& unit : units) {
        if (unit.i_type == NAL_SLICE_IDR)
            frame_number_ = repeated_ = 0;
        if (unit.i_type == NAL_SLICE)
            append_slice(unit);
        else
            bytes_.insert(bytes_.end(), unit.p_payload, unit.p_payload + unit.i_payload);
        if (unit.i_type == NAL_PPS) {
            begin_unit(parameter_set_header);
            append_escaped(bytes_, parameter_set_);
        }
    }
    return bytes_;
}

// x264's payloads of one call follow each other without a gap.
std::span<uint8_t> RepeatedPictures::as_they_are(std::span<const x264_nal_t> units)
{
    size_t size = 0;
    for (const x264_nal_t& unit : units) {
        size += static_cast<size_t>(unit.i_payload);
        if (unit.i_type == NAL_SLICE)
            read_frame_number(unit);
    }
    return {units.front().p_payload, size};
}

size_t RepeatedPictures::read_frame_number(const x264_nal_t& slice)
{
    const std::span<const uint8_t> escaped = payload(slice);
    rbsp_.clear();
    append_unescaped(rbsp_, escaped.first(std::min(escaped.size(), slice_head)));
    RawBitReader bits(rbsp_);
    for (int element = 0; element < 3; ++element)
        bits.golomb();
    const size_t position = bits.position();
    frame_number_ = wrapped(bits.number(sequence_.frame_number_bits) + repeated_);
    return position;
}

void RepeatedPictures::append_slice(const x264_nal_t& unit)
{
    const size_t position = read_frame_number(unit);
    rbsp_.clear();
    append_unescaped(rbsp_, payload(unit));
    overwrite_bits(rbsp_, position, frame_number_, sequence_.frame_number_bits);
    begin_unit(header(unit));
    append_escaped(bytes_, rbsp_);
}

std::span<uint8_t> RepeatedPictures::repeat()
{
    constexpr uint8_t p_pictures = 1 << 5 | 0x10; // primary_pic_type, clause 7.3.2.4
    ++repeated_;
    frame_number_ = wrapped(frame_number_ + 1);
    slice_.clear();
    slice_.golomb(0); // first_mb_in_slice
    slice_.golomb(all_slices_are_p);
    slice_.golomb(parameter_set_number);
    slice_.number(frame_number_, sequence_.frame_number_bits);
    slice_.number(0, 1);                  // num_ref_idx_active_override_flag
    slice_.number(0, 1);                  // ref_pic_list_modification_flag_l0
    slice_.number(0, 1);                  // adaptive_ref_pic_marking_mode_flag
    slice_.golomb(0);                     // slice_qp_delta
    slice_.golomb(1);                     // disable_deblocking_filter_idc
    slice_.golomb(sequence_.macroblocks); // mb_skip_run
    slice_.trailing_bits();
    bytes_.clear();
    begin_unit(delimiter_header);
    bytes_.push_back(p_pictures);
    begin_unit(slice_header);
    append_escaped(bytes_, slice_.bytes());
    return bytes_;
}

} // namespace zu3host

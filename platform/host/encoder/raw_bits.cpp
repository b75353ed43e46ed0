#include "encoder/raw_bits.h"

#include <algorithm>
#include <bit>

namespace zu3host {
namespace {

constexpr uint8_t emulation_prevention = 3;

} // namespace

uint32_t RawBitReader::number(unsigned bits)
{
    uint32_t value = 0;
    for (; bits > 0; --bits, ++position_) {
        const size_t byte = position_ / 8;
        const unsigned bit = byte < rbsp_.size() ? rbsp_[byte] >> (7 - position_ % 8) & 1u : 0;
        value = value << 1 | bit;
    }
    return value;
}

uint32_t RawBitReader::golomb()
{
    unsigned zeros = 0;
    while (!flag())
        if (++zeros > 31)
            return UINT32_MAX;
    return (uint32_t{1} << zeros) - 1 + number(zeros);
}

void RawBitWriter::number(uint32_t value, unsigned bits)
{
    for (; bits > 0; --bits) {
        if (used_in_last_ == 8) {
            bytes_.push_back(0);
            used_in_last_ = 0;
        }
        ++used_in_last_;
        bytes_.back() |= static_cast<uint8_t>((value >> (bits - 1) & 1) << (8 - used_in_last_));
    }
}

void RawBitWriter::golomb(uint32_t value)
{
    // ue(v) ends there (ISO/IEC 14496-10, 9.1).
    const uint32_t code = std::min(value, UINT32_MAX - 1) + 1;
    const auto bits = static_cast<unsigned>(std::bit_width(code));
    number(0, bits - 1);
    number(code, bits);
}

void RawBitWriter::trailing_bits()
{
    number(1, 1);
    used_in_last_ = 8;
}

void RawBitWriter::clear()
{
    bytes_.clear();
    used_in_last_ = 8;
}

void overwrite_bits(std::span<uint8_t> rbsp, size_t position, uint32_t value, unsigned bits)
{
    for (; bits > 0; --bits, ++position) {
        uint8_t& byte = rbsp[position / 8];
        const unsigned mask = 0x80u >> position % 8;
        const bool set = (value >> (bits - 1) & 1) != 0;
        byte = static_cast<uint8_t>(set ? byte | mask : byte & ~mask);
    }
}

void append_escaped(std::vector<uint8_t>& to, std::span<const uint8_t> rbsp)
{
    unsigned zeros = 0;
    for (const uint8_t byte : rbsp) {
        if (zeros == 2 && byte <= emulation_prevention) {
            to.push_back(emulation_prevention);
            zeros = 0;
        }
        to.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    if (zeros > 0)
        to.push_back(emulation_prevention);
}

void append_unescaped(std::vector<uint8_t>& to, std::span<const uint8_t> escaped)
{
    unsigned zeros = 0;
    for (const uint8_t byte : escaped) {
        if (zeros == 2 && byte == emulation_prevention) {
            zeros = 0;
            continue;
        }
        to.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
}

} // namespace zu3host

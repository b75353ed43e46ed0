#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zu3host {

/**
 * Reads the syntax elements of an RBSP, ISO/IEC 14496-10 clause 7.2. Beyond the end every bit is 0
 * and `overrun()` is true. Not thread-safe.
 */
class RawBitReader {
public:
    explicit RawBitReader(std::span<const uint8_t> rbsp) : rbsp_(rbsp) {}

    /** u(n), `bits` from 0 to 32. */
    uint32_t number(unsigned bits);
    bool flag() { return number(1) != 0; }
    /** ue(v), clause 9.1; UINT32_MAX for a code of more than 32 leading zeros. */
    uint32_t golomb();
    /** Bits read so far, which is the position of the next element. */
    size_t position() const { return position_; }
    bool overrun() const { return position_ > rbsp_.size() * 8; }

private:
    std::span<const uint8_t> rbsp_;
    size_t position_ = 0;
};

/** Writes the syntax elements of an RBSP behind one another. Not thread-safe. */
class RawBitWriter {
public:
    /** u(n), `bits` from 0 to 32. */
    void number(uint32_t value, unsigned bits);
    /** ue(v), clause 9.1; `value` below UINT32_MAX. */
    void golomb(uint32_t value);
    /** rbsp_trailing_bits(), clause 7.3.2.11. */
    void trailing_bits();
    /** The bits written so far, padded with 0 to a whole byte. */
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    void reserve(size_t bytes) { bytes_.reserve(bytes); }
    /** Begins anew and keeps the memory. */
    void clear();

private:
    std::vector<uint8_t> bytes_;
    unsigned used_in_last_ = 8;
};

/** Puts the low `bits` of `value` over those at `position` of `rbsp`, which has them all. */
void overwrite_bits(std::span<uint8_t> rbsp, size_t position, uint32_t value, unsigned bits);

/**
 * Appends a whole RBSP, behind the NAL unit's header byte, with emulation prevention bytes, clause
 * 7.4.1.
 */
void append_escaped(std::vector<uint8_t>& to, std::span<const uint8_t> rbsp);
/** Appends the RBSP of what follows a NAL unit's header byte: emulation prevention bytes go. */
void append_unescaped(std::vector<uint8_t>& to, std::span<const uint8_t> escaped);

} // namespace zu3host

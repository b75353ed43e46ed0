// The packet checker on broken streams, one defect each; whole streams have no findings.
#include "multiplexer_fixture.h"

#include <functional>

using namespace zu3host;

namespace {

using transport_stream::check;
using transport_stream::Report;

constexpr uint32_t rate = 2 * 1048576;
constexpr size_t packet_bytes = 188;

uint16_t pid_of(const uint8_t* packet)
{
    return static_cast<uint16_t>((packet[1] & 0x1f) << 8 | packet[2]);
}

bool has_time(const uint8_t* packet)
{
    return (packet[3] & 0x20) && packet[4] >= 7 && (packet[5] & 0x10);
}

uint8_t* payload(uint8_t* packet)
{
    return packet + 4 + (packet[3] & 0x20 ? 1 + packet[4] : 0);
}

using Property = std::function<bool(const uint8_t*)>;

Property has_pid(uint16_t pid)
{
    return [=](const uint8_t* packet) { return pid_of(packet) == pid; };
}

/** A packet of the stream's second half with a property. */
uint8_t* find(Bytes& stream, const Property& wanted)
{
    for (size_t at = stream.size() / packet_bytes / 2 * packet_bytes; at < stream.size();
         at += packet_bytes)
        if (wanted(&stream[at]))
            return &stream[at];
    ADD_FAILURE() << "there is no such packet";
    return stream.data();
}

uint8_t* of_pid(Bytes& stream, uint16_t pid, bool unit_start)
{
    return find(stream, [=](const uint8_t* p) {
        return pid_of(p) == pid && bool(p[1] & 0x40) == unit_start;
    });
}

void erase_packet(Bytes& stream, const uint8_t* packet)
{
    const auto at = stream.begin() + (packet - stream.data());
    stream.erase(at, at + packet_bytes);
}

void make_null(uint8_t* packet)
{
    packet[1] = 0x1f, packet[2] = 0xff, packet[3] = 0x10;
}

/** Changes every packet from `first` on that has a property. */
void change_all(Bytes& stream, size_t first, const Property& wanted, void (*change)(uint8_t*))
{
    for (size_t at = first * packet_bytes; at < stream.size(); at += packet_bytes)
        if (wanted(&stream[at]))
            change(&stream[at]);
}

/** Makes null packets of those of a PID, `count` of them from the middle on. */
void blank(Bytes& stream, uint16_t pid, size_t count)
{
    while (count-- > 0)
        make_null(find(stream, has_pid(pid)));
}

struct Defect {
    const char* name;
    /** the checker's name of it */
    const char* kind;
    void (*plant)(Bytes&);
};

const Defect defects[] = {
    {"a counter that skips", "continuity", [](Bytes& s) { of_pid(s, picture_pid, false)[3] ^= 4; }},
    {"a lost packet", "continuity",
     [](Bytes& s) { erase_packet(s, of_pid(s, picture_pid, false)); }},
    {"a packet sent three times", "continuity",
     [](Bytes& s) {
         const auto at = of_pid(s, picture_pid, false) - s.data();
         const Bytes copy(s.begin() + at, s.begin() + at + packet_bytes);
         for (int i = 0; i < 2; ++i)
             s.insert(s.begin() + at, copy.begin(), copy.end());
     }},
    {"a damaged association table", "crc", [](Bytes& s) { of_pid(s, 0, true)[5 + 9] ^= 2; }},
    {"a damaged program map", "crc", [](Bytes& s) { of_pid(s, 0x1000, true)[5 + 13] ^= 1; }},
    {"600 ms without an association table", "table_repetition", [](Bytes& s) { blank(s, 0, 7); }},
    {"200 ms without a program map", "table_repetition", [](Bytes& s) { blank(s, 0x1000, 2); }},
    {"no association table at all", "pat",
     [](Bytes& s) { change_all(s, 0, has_pid(0), make_null); }},
    {"time that jumps 11 s ahead", "pcr_discontinuity",
     [](Bytes& s) {
         change_all(s, s.size() / packet_bytes / 2, has_time, [](uint8_t* p) { p[7] |= 0x08; });
     }},
    {"150 ms without a time reference", "pcr_interval",
     [](Bytes& s) {
         for (int i = 0; i < 7; ++i)
             find(s, has_time)[5] &= 0xef;
     }},
    {"a time reference 2 us off", "pcr_accuracy",
     [](Bytes& s) {
         find(s, [](const uint8_t* p) { return has_time(p) && p[11] < 200; })[11] += 54;
     }},
    {"a rate 3% off", "rate",
     [](Bytes& s) {
         for (size_t at = 0, n = 0; at < s.size(); at += packet_bytes, ++n) {
             if (n % 25 == 0 && pid_of(&s[at]) == 0x1fff)
                 erase_packet(s, &s[at]);
         }
     }},
    {"a PTS that runs backwards", "pts_order",
     [](Bytes& s) { payload(of_pid(s, picture_pid, true))[12] -= 60; }},
    {"a PTS that has passed", "pts_late",
     [](Bytes& s) { payload(of_pid(s, picture_pid, true))[11] -= 8; }},
    {"a PES packet without a PTS", "pts_missing",
     [](Bytes& s) { payload(of_pid(s, sound_pid, true))[7] = 0; }},
    {"sound that jumps", "sound_gap",
     [](Bytes& s) { payload(of_pid(s, sound_pid, true))[12] += 4; }},
    {"a lost sync byte", "sync", [](Bytes& s) { of_pid(s, picture_pid, false)[0] = 0x46; }},
    {"an error mark", "transport_error",
     [](Bytes& s) { of_pid(s, picture_pid, false)[1] |= 0x80; }},
    {"a wrong PES start code", "pes",
     [](Bytes& s) { payload(of_pid(s, picture_pid, true))[2] = 2; }},
    {"a wrong PES length", "pes", [](Bytes& s) { payload(of_pid(s, sound_pid, true))[5] += 1; }},
    {"a stream that is not there", "missing_pid",
     [](Bytes& s) { change_all(s, 0, has_pid(sound_pid), make_null); }},
    {"a stream that no table announces", "unknown_pid",
     [](Bytes& s) { of_pid(s, sound_pid, true)[2] = 0x33; }},
    {"a scrambled packet", "scrambled", [](Bytes& s) { of_pid(s, sound_pid, true)[3] |= 0x80; }},
    {"a beginning without an IDR picture", "first_unit",
     [](Bytes& s) {
         change_all(
             s, 0, [](const uint8_t* p) { return pid_of(p) == picture_pid && (p[1] & 0x40); },
             [](uint8_t* p) { payload(p)[14 + 23] = 0x41; });
     }},
    {"a picture without a delimiter", "access_unit",
     [](Bytes& s) { payload(of_pid(s, picture_pid, true))[14 + 4] = 0x0c; }},
    {"an end inside a packet", "size", [](Bytes& s) { s.pop_back(); }},
};

Bytes make_stream(uint32_t packet_size)
{
    Recording recording(
        {.packet_size = packet_size, .rate = rate, .sound = true, .region = 1 << 20});
    EXPECT_EQ(recording.start(), ZU_OK);
    UnitMaker units;
    for (uint64_t i = 0; i < 120; ++i) {
        recording.push_captured(units.make(i % 30 == 0, 4000), i * 33333);
        recording.copy();
    }
    recording.drain();
    return recording.output;
}

// Catches a checker that overlooks a defect or reports a good stream.
TEST(StreamChecker, FindsEachPlantedDefect)
{
    const Bytes whole = make_stream(188);
    ASSERT_EQ(text_of(check(whole, {188, rate, false, false}).findings), "");
    for (const Defect& defect : defects) {
        Bytes broken = whole;
        defect.plant(broken);
        const Report report = check(broken, {188, rate, false, false});
        EXPECT_TRUE(report.has(defect.kind)) << defect.name << ", but found:\n"
                                             << text_of(report.findings);
    }
}

// Catches a checker that ignores the arrival times of 192-byte packets.
TEST(StreamChecker, FindsArrivalTimesThatStandStill)
{
    Bytes stream = make_stream(192);
    ASSERT_EQ(text_of(check(stream, {0, rate, false, false}).findings), "");
    std::copy_n(stream.begin() + 192 * 40, 4, stream.begin() + 192 * 41);
    EXPECT_TRUE(check(stream, {0, rate, false, false}).has("arrival_time"));
}

} // namespace

#include "encoder/key_quantizer.h"
#include "encoder/refinement.h"

#include <gtest/gtest.h>
#include <string>

namespace zu3host {
namespace {

/** Notes pictures: key frame, change, small change, encoded and repeated ones without a change. */
Refinement after(uint32_t frame_rate, const std::string& pictures)
{
    Refinement refinement(frame_rate);
    for (const char picture : pictures)
        if (picture == 'r')
            refinement.note_repeated();
        else
            refinement.note_encoded(picture == 'u'   ? 46
                                    : picture == 's' ? 120
                                                     : 5000,
                                    picture == 'k', picture == 'u');
    return refinement;
}

// Catches a picture that stays coarse because it waits too long or after a change that needs bits,
// and CPU time for one that another change replaces.
TEST(Refinement, WaitsInVideoAndAfterASmallChange)
{
    const std::string settled = "kuu", eight = "rrrrrrrr", video_at_60 = "crrcrcrrcrcrrcrc";
    const struct {
        uint32_t frame_rate;
        std::string pictures;
        bool waits;
    } cases[] = {
        {30, "", false},
        {30, "k", false},
        {30, "ccccrcccc", true},
        {30, "ccccrccccr", false},
        {30, "crrcrrcrrc", false},
        {60, video_at_60, true},
        {60, video_at_60 + "r", true},
        {60, video_at_60 + "rr", false},
        {60, "crrrrrcrrrrrcrrrrrc", false},
        {30, settled + "s", true},
        {30, settled + "srrrrrrr", true},
        {30, settled + "s" + eight, false},
        {30, settled + eight + "ssrs", true},
        {30, settled + "c", false},
        {30, settled + "sc", false},
        {30, settled + "crs", false},
        {30, "kus", false},
        {30, settled + "sks", false},
        {1, settled + "s", true},
        {1, settled + "sr", false},
        {240, settled + "s" + std::string(60, 'r'), true},
        {240, settled + "s" + std::string(61, 'r'), false},
    };
    for (const auto& [frame_rate, pictures, waits] : cases)
        EXPECT_EQ(after(frame_rate, pictures).may_wait(), waits) << frame_rate << " " << pictures;
}

// Catches key frames that get coarser by repetitions, and an offset without them or without bound.
TEST(KeyQuantizer, MakesUpForTheQuantizersOfRepetitions)
{
    const auto offset = [](int encoded, int repeated, double last) {
        KeyQuantizer quantizer;
        quantizer.note_encoded(18, true, false);
        for (int i = 0; i < encoded; ++i)
            quantizer.note_encoded(15, false, true);
        quantizer.note_encoded(last, false, false);
        for (int i = 0; i < repeated; ++i)
            quantizer.note_repeated();
        return quantizer.offset();
    };
    EXPECT_EQ(offset(60, 0, 19), 0) << "without repetitions";
    EXPECT_GT(offset(60, 50, 15), -0.5f) << "x264's mean is as fine";
    EXPECT_LT(offset(5, 10, 15), -0.6f) << "x264's mean is coarser";
    EXPECT_LT(offset(5, 10, 19), -0.6f) << "a change is coded coarsely, the picture is fine";
    EXPECT_GT(offset(0, 1000, 3), -1.5f) << "the offset is bounded";
    KeyQuantizer next;
    next.note_encoded(18, true, false);
    next.note_repeated();
    next.note_encoded(18, true, false);
    EXPECT_EQ(next.offset(), 0) << "the repetitions were before the key frame";
}

} // namespace
} // namespace zu3host

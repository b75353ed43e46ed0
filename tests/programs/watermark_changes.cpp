/**
 * Changes the watermark of a running capture-encode pipeline N times, with every kind of change,
 * while frames are read.
 *
 *     watermark_changes [N]     default 1000
 *
 * Exit code 0 if every change was accepted and frames kept coming. ThreadSanitizer is its judge: the
 * renderer draws on the capture's thread.
 */
#include "programs/support.h"

namespace {

/** Change number `i`: moving, over the edges, fading, of another size, and none at all. */
void describe(android::WatermarkParams& watermark, int i)
{
    watermark.u32Width = 20 + i % 31;
    watermark.u32Height = 10 + i % 17;
    watermark.s32X = i % 700 - 20;
    watermark.s32Y = i % 500 - 15;
    watermark.u32Opacity = i % 256;
    if (i % 10 != 9)
        watermark.spMemory = new Pixels(watermark.u32Width * watermark.u32Height * 4);
}

} // namespace

int main(int argc, char** argv)
{
    const int changes = argc > 1 ? atoi(argv[1]) : 1000;
    CapEnc_OpenParams params = {640, 480, 60, 2'000'000, 1, 0x200, 0};
    if (video_capenc_open(&params) != 0 || video_capenc_start(0) != 0)
        return 1;
    std::vector<uint8_t> frame(video_capenc_getMaxEsSize());
    int refused = 0, frames = 0;
    for (int i = 0; i < changes || (frames < 30 && i < 100 * changes); i++) {
        android::WatermarkParams* watermark = new android::WatermarkParams;
        const android::sp<android::WatermarkParams> keep = watermark;
        describe(*watermark, i);
        refused += video_capenc_setWatermark(*watermark) != 0;
        CapEnc_EsInfo info = {};
        if (video_capenc_getES(frame.data(), frame.size(), &info) == 0 && info.u64DataSize != 0)
            frames++;
    }
    video_capenc_stop();
    video_capenc_close();
    printf("%d changes, %d refused, %d frames\n", changes, refused, frames);
    return refused != 0 || frames < 30;
}

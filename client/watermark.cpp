#include "watermark.h"

#include "library_log.h"
#include "png_file.h"
#include "screenrecord/screenrecord.h"
#include "srglworker/SrGlWorker.h"

namespace client {
namespace {

/** A picture as the renderer reads it: it keeps a reference as long as it draws. */
class PictureMemory : public android::IMemory {
public:
    explicit PictureMemory(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
    void* pointer() const override { return const_cast<uint8_t*>(bytes_.data()); }
    size_t size() const override { return bytes_.size(); }

private:
    ~PictureMemory() override = default;

    std::vector<uint8_t> bytes_;
};

} // namespace

void set_watermark(const WatermarkOptions& options)
{
    android::WatermarkParams params;
    if (!options.image.empty()) {
        RgbaPicture picture = read_png(options.image);
        params.u32Width = picture.size.width;
        params.u32Height = picture.size.height;
        params.s32X = options.at.x;
        params.s32Y = options.at.y;
        params.u32Opacity = options.opacity;
        params.spMemory = android::sp<android::IMemory>(new PictureMemory(std::move(picture.bytes)));
    }
    if (video_capenc_setWatermark(params) != 0)
        throw library_failure("cannot draw the watermark: the library refused it");
}

} // namespace client

#include "running/watermark.h"

#include "running/library_log.h"
#include <screenrecord/screenrecord.h>
#include <srglworker/SrGlWorker.h>

namespace client {
namespace {

/** A picture for the renderer, which keeps a reference while it draws it. */
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

WatermarkChange::WatermarkChange(const WatermarkOptions& options)
    : options_(options), picture_(std::make_shared<RgbaPicture>()),
      reading_([picture = picture_, image = options.image] {
          if (!image.empty())
              *picture = read_png(image);
      })
{
}

void WatermarkChange::apply()
{
    reading_.finish();
    android::WatermarkParams params;
    if (!options_.image.empty()) {
        params.u32Width = picture_->size.width;
        params.u32Height = picture_->size.height;
        params.s32X = options_.at.x;
        params.s32Y = options_.at.y;
        params.u32Opacity = options_.opacity;
        params.spMemory =
            android::sp<android::IMemory>(new PictureMemory(std::move(picture_->bytes)));
    }
    if (video_capenc_setWatermark(params) != 0)
        throw library_failure("cannot draw the watermark: the library refused it");
}

} // namespace client

#include "middleware/state.h"
#include "srglworker/SrGlWorker.h"

using namespace middleware;
using android::sp;
using android::WatermarkParams;
using android::vexa_screenrecord::SrGlWorker;

namespace {

class Worker : public SrGlWorker {
public:
    sp<WatermarkParams> watermark;
};

class DrawnPicture : public SrGlWorker::VideoBuffer {};

int answer(const std::string& function, const std::string& arguments)
{
    return static_cast<int>(perform(false, function, "", arguments, [](Context&) { return ZU_OK; }));
}

std::string describe(const android::qrl_native_buffer_t& b)
{
    return text("version=", hex(b.version), " flags=", b.flags, " format=", hex(b.format), " ", b.width, "x",
                b.height, " pitch=", b.pitch, " phys=", hex(b.phys), " fd=", b.fd[0], ",", b.fd[1],
                " offset=", b.offset[0], ",", b.offset[1]);
}

std::string describe(const sp<WatermarkParams>& p)
{
    return p ? text(p->u32Width, "x", p->u32Height, " at ", p->s32X, ",", p->s32Y, " opacity=", p->u32Opacity)
             : "null";
}

} // namespace

namespace android::vexa_screenrecord {

sp<SrGlWorker> SrGlWorker::newWorker()
{
    const s64 made = perform(false, "SrGlWorker::newWorker", "", "", [](Context&) { return 1; });
    return made ? sp<SrGlWorker>(new Worker) : sp<SrGlWorker>();
}

int SrGlWorker::prepare()
{
    return answer("SrGlWorker::prepare", "");
}

int SrGlWorker::setWatermark(sp<WatermarkParams> params)
{
    const int result = answer("SrGlWorker::setWatermark", describe(params));
    if (result != 0)
        return result;
    // The old one goes without the lock: its memory's destructor is the test's.
    const Lock lock(state().mutex);
    std::swap(static_cast<Worker*>(this)->watermark, params);
    return 0;
}

int SrGlWorker::render(sp<VideoBuffer> buffer)
{
    return answer("SrGlWorker::render", buffer ? "" : "null");
}

int SrGlWorker::reset()
{
    sp<WatermarkParams> old;
    const int result = answer("SrGlWorker::reset", "");
    const Lock lock(state().mutex);
    std::swap(static_cast<Worker*>(this)->watermark, old);
    return result;
}

sp<SrGlWorker::VideoBuffer> SrGlWorker::VideoBuffer::newBuffer(const qrl_native_buffer_t& buffer)
{
    const s64 made = perform(false, "VideoBuffer::newBuffer", "", describe(buffer), [&](Context&) {
        keep("VideoBuffer::newBuffer", buffer);
        return 1;
    });
    return made ? sp<VideoBuffer>(new DrawnPicture) : sp<VideoBuffer>();
}

} // namespace android::vexa_screenrecord

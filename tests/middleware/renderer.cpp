#include "middleware/contract_call.h"
#include "srglworker/SrGlWorker.h"

using namespace middleware;
using android::sp;
using android::vexa_screenrecord::SrGlWorker;

namespace {

class Worker : public SrGlWorker {
public:
    Worker() { ++live_workers; }
    ~Worker() override { --live_workers; }
};
class DrawnPicture : public SrGlWorker::VideoBuffer {};

int answer(const std::string& function, const std::string& arguments)
{
    return call(function, arguments, [](Context&) { return 0; });
}

/** A new object, or none if the call is scripted to fail. */
template <class Object> Object* made(const std::string& function, const std::string& arguments)
{
    return call(function, arguments, [](Context&) { return true; }) ? new Object : nullptr;
}

std::string describe(const qrl_native_buffer_t& b)
{
    return text("version=", hex(b.version), " flags=", b.flags, " format=", hex(b.format), " ",
                b.width, "x", b.height, " pitch=", b.pitch,
                " addr=", hex(reinterpret_cast<uintptr_t>(b.addr)), " phys=", hex(b.phys),
                " fd=", b.fd[0], ",", b.fd[1], " offset=", b.offset[0], ",", b.offset[1]);
}

} // namespace

int middleware::live_workers = 0;

namespace android::vexa_screenrecord {

sp<SrGlWorker> SrGlWorker::newWorker()
{
    return made<Worker>("SrGlWorker::newWorker", "");
}

int SrGlWorker::prepare()
{
    return answer("SrGlWorker::prepare", "");
}

int SrGlWorker::setWatermark(sp<WatermarkParams> p)
{
    return answer("SrGlWorker::setWatermark", text(p->u32Width, "x", p->u32Height, " at ", p->s32X,
                                                   ",", p->s32Y, " opacity=", p->u32Opacity));
}

int SrGlWorker::render(sp<VideoBuffer> buffer)
{
    return answer("SrGlWorker::render", buffer ? "" : "null");
}

int SrGlWorker::reset()
{
    return answer("SrGlWorker::reset", "");
}

sp<SrGlWorker::VideoBuffer> SrGlWorker::VideoBuffer::newBuffer(const qrl_native_buffer_t& buffer)
{
    return made<DrawnPicture>("VideoBuffer::newBuffer", describe(buffer));
}

} // namespace android::vexa_screenrecord

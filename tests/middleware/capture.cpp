#include "middleware/device_calls.h"

using namespace middleware;

namespace {

constexpr u32 display_handle = 0xD0;
// not the index of the library's own buffer: the two must not be mixed up
constexpr u32 still_buffer = 5;

std::string describe(const ZU_CAP_CaptureParams_t& p)
{
    const ZU_CAP_Output_t& out = p.stOutput;
    return text(", path=", p.u32CapturePath, " osd=", p.u32Osd, " ", out.u32OutWidth, "x",
                out.u32OutHeight, "@", out.u32OutFrameRate, " format=", out.eOutFormat,
                " size=", out.u32OutSize, " pitch=", out.u32Pitch, " fd=", out.s32OutFd,
                " virt=", out.u64VirtAddr ? "set" : "0", " phys=", hex(out.u64PhyAddr));
}

} // namespace

extern "C" {

u32 ZU_CAP_DeInit(void)
{
    return call(__func__);
}

u32 ZU_CAP_Open(const ZU_CAP_OpenParams_t* params, u32* handle)
{
    return open_call(__func__, Kind::capture, text("path=", params->u8CapturePath), handle,
                     [](Device&) {});
}

u32 ZU_DISP_GetHandle(const ZU_DISP_GetHandleParams_t* params, u32* handle)
{
    return call(__func__, text("name=", params->pu8Name), [&](Context& context) {
        *handle = display_handle;
        context.note = "h=" + hex(*handle);
        return ZU_OK;
    });
}

u32 ZU_CAP_ConnectInput(u32 handle, u32 display, const ZU_CAP_ConnectParams_t* params)
{
    return device_call(__func__, Kind::capture, handle,
                       text(", ", hex(display), ", port=", params->u8InputPort),
                       [&](Context&, Device& device) {
                           device.display = display;
                           return display == display_handle ? ZU_OK : ZU_INVALID_ARGUMENT;
                       });
}

u32 ZU_CAP_DisconnectInput(u32 handle, u32 display)
{
    return ending_device_call(__func__, Kind::capture, handle, ", " + hex(display),
                              [&](Context& context, Device& device) {
                                  if (display != display_handle)
                                      return ZU_INVALID_ARGUMENT;
                                  device.excused = device.excused || context.refused;
                                  device.display = context.refused ? device.display : 0;
                                  return ZU_OK;
                              });
}

u32 ZU_CAP_CaptureStart(u32 handle, const ZU_CAP_CaptureParams_t* params)
{
    return device_call(__func__, Kind::capture, handle, describe(*params), [&](Context&, Device&) {
        state().last.capture = *params;
        return ZU_OK;
    });
}

u32 ZU_CAP_CaptureStop(u32 handle)
{
    return device_call(__func__, Kind::capture, handle);
}

u32 ZU_CAP_CaptureOne(u32 handle, const ZU_CAP_CaptureParams_t* params, ZU_CAP_FrameInfo_t* frame)
{
    return device_call(__func__, Kind::capture, handle, describe(*params),
                       [&](Context& context, Device& device) {
                           frame->u32BufIndex = still_buffer;
                           frame->phyYAddr = params->stOutput.u64PhyAddr;
                           device.pictures[still_buffer]++;
                           context.note = text("buffer=", still_buffer);
                           return ZU_OK;
                       });
}

u32 ZU_CAP_ProcessBufDone(u32 handle, u32 buffer)
{
    return ending_device_call(
        __func__, Kind::capture, handle, text(", ", buffer), [&](Context&, Device& device) {
            const bool held = device.pictures.contains(buffer);
            if (held && --device.pictures[buffer] == 0)
                device.pictures.erase(buffer);
            if (!held && late_callback_depth == 0)
                problem(text("picture ", buffer, " is given back but was not out"));
            return held ? ZU_OK : ZU_INVALID_ARGUMENT;
        });
}
}

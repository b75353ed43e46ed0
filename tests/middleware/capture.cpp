#include "middleware/device_calls.h"

using namespace middleware;

namespace {

constexpr u32 display_handle = 0xD0;

std::string describe(const ZU_CAP_CaptureParams_t& p)
{
    const ZU_CAP_Output_t& out = p.stOutput;
    return text("path=", p.u32CapturePath, " osd=", p.u32Osd, " ", out.u32OutWidth, "x", out.u32OutHeight,
                "@", out.u32OutFrameRate, " format=", out.eOutFormat, " size=", out.u32OutSize,
                " pitch=", out.u32Pitch, " fd=", out.s32OutFd, " virt=", out.u64VirtAddr ? "set" : "0",
                " phys=", hex(out.u64PhyAddr));
}

} // namespace

extern "C" {

u32 ZU_CAP_DeInit(void)
{
    return ending_call("ZU_CAP_DeInit", "", [](Context&) { return ZU_OK; });
}

u32 ZU_CAP_Open(const ZU_CAP_OpenParams_t* params, u32* handle)
{
    return open_call("ZU_CAP_Open", Kind::capture, text("path=", params->u8CapturePath), handle,
                     [](Device&) {});
}

u32 ZU_CAP_Close(u32 handle)
{
    return close_call("ZU_CAP_Close", Kind::capture, handle);
}

u32 ZU_DISP_GetHandle(const ZU_DISP_GetHandleParams_t* params, u32* handle)
{
    return call("ZU_DISP_GetHandle", text("name=", params->pu8Name), [&](Context& context) {
        *handle = display_handle;
        context.note = "h=" + hex(*handle);
        return ZU_OK;
    });
}

u32 ZU_CAP_ConnectInput(u32 handle, u32 display, const ZU_CAP_ConnectParams_t* params)
{
    return device_call("ZU_CAP_ConnectInput", Kind::capture, handle,
                       text(", ", hex(display), ", port=", params->u8InputPort),
                       [&](Context&, Device& device) {
                           device.display = display;
                           return display == display_handle ? ZU_OK : ZU_INVALID_ARGUMENT;
                       });
}

u32 ZU_CAP_DisconnectInput(u32 handle, u32 display)
{
    return ending_call(
        "ZU_CAP_DisconnectInput", text(hex(handle), ", ", hex(display)), [&](Context& context) {
            Device* const device = live_device(handle, Kind::capture, "ZU_CAP_DisconnectInput");
            if (!device || display != display_handle)
                return ZU_INVALID_ARGUMENT;
            device->excused = device->excused || context.refused;
            device->display = context.refused ? device->display : 0;
            return ZU_OK;
        });
}

u32 ZU_CAP_RegisterCallback(u32 handle, const ZU_CAP_CallbackParams_t* params, u64* id)
{
    return register_call("ZU_CAP_RegisterCallback", Kind::capture, handle, *params, &Device::capture_callback,
                         id);
}

u32 ZU_CAP_UnRegisterCallback(u32 handle, const ZU_CAP_CallbackParams_t* params)
{
    return unregister_call("ZU_CAP_UnRegisterCallback", Kind::capture, handle, params->u64CallbackId);
}

u32 ZU_CAP_CaptureStart(u32 handle, const ZU_CAP_CaptureParams_t* params)
{
    return device_call("ZU_CAP_CaptureStart", Kind::capture, handle, ", " + describe(*params),
                       [&](Context&, Device&) {
                           keep("ZU_CAP_CaptureStart", *params);
                           return ZU_OK;
                       });
}

u32 ZU_CAP_CaptureStop(u32 handle)
{
    return device_call("ZU_CAP_CaptureStop", Kind::capture, handle);
}

u32 ZU_CAP_CaptureOne(u32 handle, const ZU_CAP_CaptureParams_t* params, ZU_CAP_FrameInfo_t* frame)
{
    return device_call("ZU_CAP_CaptureOne", Kind::capture, handle, ", " + describe(*params),
                       [&](Context& context, Device& device) {
                           keep("ZU_CAP_CaptureOne", *params);
                           frame->u32BufIndex =
                               5; // not the index of the library's own buffer: the two must not be mixed up
                           frame->phyYAddr = params->stOutput.u64PhyAddr;
                           device.pictures[frame->u32BufIndex]++;
                           context.note = text("buffer=", frame->u32BufIndex);
                           return ZU_OK;
                       });
}

u32 ZU_CAP_ProcessBufDone(u32 handle, u32 buffer)
{
    return ending_call("ZU_CAP_ProcessBufDone", text(hex(handle), ", ", buffer), [&](Context&) {
        Device* const device = live_device(handle, Kind::capture, "ZU_CAP_ProcessBufDone");
        const bool held = device && device->pictures.contains(buffer);
        if (held && --device->pictures[buffer] == 0)
            device->pictures.erase(buffer);
        if (device && !held && late_callback_depth == 0)
            problem(text("picture ", buffer, " is given back but was not out"));
        return held ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}
}

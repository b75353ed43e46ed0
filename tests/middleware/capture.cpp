#include "middleware/state.h"

using namespace middleware;

namespace {

constexpr u32 display_handle = 0xD0;

u32 register_callback(Context& context, u32 handle, const ZU_CAP_CallbackParams_t& params, u64* id)
{
    keep("ZU_CAP_RegisterCallback", params);
    Device* const device = live_device(handle, Kind::capture, "ZU_CAP_RegisterCallback");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    device->capture_callback = params.pfnCallback;
    device->user_data = params.pUserData;
    device->registration = *id = new_registration();
    context.note = "id=" + hex(*id);
    return ZU_OK;
}

std::string describe(const ZU_CAP_CaptureParams_t& p)
{
    const ZU_CAP_Output_t& out = p.stOutput;
    return text("path=", p.u32CapturePath, " osd=", p.u32Osd, " ", out.u32OutWidth, "x", out.u32OutHeight,
                "@", out.u32OutFrameRate, " format=", out.eOutFormat, " size=", out.u32OutSize,
                " pitch=", out.u32Pitch, " fd=", out.s32OutFd, " virt=", out.u64VirtAddr ? "set" : "0",
                " phys=", hex(out.u64PhyAddr));
}

u32 give_back(u32 handle, u32 buffer)
{
    Device* const device = live_device(handle, Kind::capture, "ZU_CAP_ProcessBufDone");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    const auto held = device->pictures.find(buffer);
    if (held == device->pictures.end()) {
        if (late_callback_depth == 0)
            problem(text("picture ", buffer, " is given back but was not out"));
        return ZU_INVALID_ARGUMENT;
    }
    if (--held->second == 0)
        device->pictures.erase(held);
    return ZU_OK;
}

} // namespace

extern "C" {

u32 ZU_CAP_DeInit(void)
{
    return ending_call("ZU_CAP_DeInit", "", [](Context&) { return ZU_OK; });
}

u32 ZU_CAP_Open(const ZU_CAP_OpenParams_t* params, u32* handle)
{
    return call("ZU_CAP_Open", text("path=", params->u8CapturePath), [&](Context& context) {
        keep("ZU_CAP_Open", *params);
        *handle = add_device(Kind::capture);
        context.note = "h=" + hex(*handle);
        return ZU_OK;
    });
}

u32 ZU_CAP_Close(u32 handle)
{
    return ending_call("ZU_CAP_Close", hex(handle), [&](Context& context) {
        return close_device(context, handle, Kind::capture, "ZU_CAP_Close");
    });
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
    return call("ZU_CAP_ConnectInput", text(hex(handle), ", ", hex(display), ", port=", params->u8InputPort),
                [&](Context&) {
                    Device* const device = live_device(handle, Kind::capture, "ZU_CAP_ConnectInput");
                    if (!device || display != display_handle)
                        return ZU_INVALID_ARGUMENT;
                    device->display = display;
                    return ZU_OK;
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
    return call("ZU_CAP_RegisterCallback", text(hex(handle), ", mask=", params->u32EventMask),
                [&](Context& context) { return register_callback(context, handle, *params, id); });
}

u32 ZU_CAP_UnRegisterCallback(u32 handle, const ZU_CAP_CallbackParams_t* params)
{
    return ending_call("ZU_CAP_UnRegisterCallback", text(hex(handle), ", id=", hex(params->u64CallbackId)),
                       [&](Context& context) {
                           keep("ZU_CAP_UnRegisterCallback", *params);
                           return remove_registration(context, handle, Kind::capture, params->u64CallbackId,
                                                      "ZU_CAP_UnRegisterCallback");
                       });
}

u32 ZU_CAP_CaptureStart(u32 handle, const ZU_CAP_CaptureParams_t* params)
{
    return call("ZU_CAP_CaptureStart", text(hex(handle), ", ", describe(*params)), [&](Context&) {
        keep("ZU_CAP_CaptureStart", *params);
        return live_device(handle, Kind::capture, "ZU_CAP_CaptureStart") ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

u32 ZU_CAP_CaptureStop(u32 handle)
{
    return call("ZU_CAP_CaptureStop", hex(handle), [&](Context&) {
        return live_device(handle, Kind::capture, "ZU_CAP_CaptureStop") ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

u32 ZU_CAP_CaptureOne(u32 handle, const ZU_CAP_CaptureParams_t* params, ZU_CAP_FrameInfo_t* frame)
{
    return call("ZU_CAP_CaptureOne", text(hex(handle), ", ", describe(*params)), [&](Context& context) {
        keep("ZU_CAP_CaptureOne", *params);
        Device* const device = live_device(handle, Kind::capture, "ZU_CAP_CaptureOne");
        if (!device)
            return ZU_INVALID_ARGUMENT;
        frame->u32BufIndex = 5; // not the index of the library's own buffer: the two must not be mixed up
        frame->phyYAddr = params->stOutput.u64PhyAddr;
        device->pictures[frame->u32BufIndex]++;
        context.note = text("buffer=", frame->u32BufIndex);
        return ZU_OK;
    });
}

u32 ZU_CAP_ProcessBufDone(u32 handle, u32 buffer)
{
    return ending_call("ZU_CAP_ProcessBufDone", text(hex(handle), ", ", buffer),
                       [&](Context&) { return give_back(handle, buffer); });
}
}

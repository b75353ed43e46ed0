/** The calls that all kinds of devices have: initialisation, start, stop, callbacks and close. */
#include "middleware/device_calls.h"

using namespace middleware;

namespace {

void note_attachments(const Device& device, const std::string& name)
{
    if (device.excused)
        return;
    if (device.registration != 0)
        problem(name + " is closed while its callback is registered");
    if (device.display != 0)
        problem(name + " is closed while it is connected to a display");
    // An audio source ends with its multiplexer: the library pushes nothing to it.
    for (const auto& [id, source] : device.sources)
        if (source.u8StreamId == 0xE0)
            problem(text(name, " is closed while media source ", hex(id), " is attached"));
    for (const auto& [buffer, count] : device.pictures)
        if (device.pictures_on_their_way == 0)
            problem(text(name, " is closed and picture ", buffer, " was never given back"));
}

u32 close_call(const char* function, Kind kind, u32 handle)
{
    return ending_device_call(function, kind, handle, "", [&](Context&, Device& device) {
        note_attachments(device, name_of(kind, handle));
        device.alive = false;
        device.sources.clear();
        device.pictures.clear();
        // the memory goes: a late access is one to freed memory
        device.lent.clear();
        return ZU_OK;
    });
}

template <class Params>
u32 register_call(const char* function, Kind kind, u32 handle, const Params& params, u64* id)
{
    return device_call(function, kind, handle, text(", mask=", params.u32EventMask),
                       [&](Context& context, Device& device) {
                           device.callback = bound(params.pfnCallback, handle, params.pUserData);
                           // Beyond 32 bits, so that a cut id is seen.
                           device.registration = *id = 0x1'0000'00C1 + state().next_registration++;
                           context.note = "id=" + hex(*id);
                           return ZU_OK;
                       });
}

/** Ends the registration that `id` (0 = whichever) names. */
u32 unregister_call(const char* function, Kind kind, u32 handle, u64 id, u32 mask)
{
    return ending_device_call(
        function, kind, handle, text(", id=", hex(id), " mask=", mask),
        [&](Context& context, Device& device) {
            if (context.refused) {
                device.excused = true;
                state().excused_registrations.insert(device.registration);
                return ZU_OK;
            }
            // A failed start stops a module, and so does its slot's close: no fault.
            if (id != 0 && device.registration != 0 && id != device.registration) {
                if (!state().excused_registrations.contains(id))
                    problem(text(function, " names registration ", hex(id), ", which ",
                                 name_of(kind, handle), " does not have"));
                return ZU_INVALID_ARGUMENT;
            }
            device.registration = 0;
            return ZU_OK;
        });
}

u32 init_call(const char* function, Kind kind, u32 reserved)
{
    return call(function, text(reserved), [&](Context&) {
        if (!state().initialised.insert(facts(kind).module).second)
            problem(facts(kind).module + " is initialised twice");
        return ZU_OK;
    });
}

u32 deinit_call(const char* function, Kind kind)
{
    return ending_call(function, "", [&](Context&) {
        const std::string& module = facts(kind).module;
        if (state().initialised.erase(module) == 0)
            problem(module + " is de-initialised without an initialisation");
        for (const auto& [handle, device] : state().devices)
            if (device.alive && device.kind == kind)
                problem(
                    text(module, " is de-initialised while ", name_of(kind, handle), " is open"));
        return ZU_OK;
    });
}

} // namespace

#define DEFINE_CALLBACKS(MODULE, kind)                                                             \
    u32 MODULE##_RegisterCallback(u32 handle, const MODULE##_CallbackParams_t* params, u64* id)    \
    {                                                                                              \
        return register_call(__func__, kind, handle, *params, id);                                 \
    }                                                                                              \
    u32 MODULE##_UnRegisterCallback(u32 handle, const MODULE##_CallbackParams_t* params)           \
    {                                                                                              \
        return unregister_call(__func__, kind, handle, params->u64CallbackId,                      \
                               params->u32EventMask);                                              \
    }
#define DEFINE_CLOSE(MODULE, kind)                                                                 \
    u32 MODULE##_Close(u32 handle)                                                                 \
    {                                                                                              \
        return close_call(__func__, kind, handle);                                                 \
    }
#define DEFINE_MODULE(MODULE, kind)                                                                \
    u32 MODULE##_Init(const MODULE##_InitParams_t* params)                                         \
    {                                                                                              \
        return init_call(__func__, kind, params->u8Reserved);                                      \
    }                                                                                              \
    u32 MODULE##_DeInit(void)                                                                      \
    {                                                                                              \
        return deinit_call(__func__, kind);                                                        \
    }                                                                                              \
    u32 MODULE##_Start(u32 handle, const MODULE##_StartParams_t* params)                           \
    {                                                                                              \
        return device_call(__func__, kind, handle, text(", ", params->u8Reserved));                \
    }                                                                                              \
    u32 MODULE##_Stop(u32 handle)                                                                  \
    {                                                                                              \
        return device_call(__func__, kind, handle);                                                \
    }                                                                                              \
    DEFINE_CLOSE(MODULE, kind)
#define DEFINE_CAPS(MODULE, ...)                                                                   \
    u32 MODULE##_GetCaps(MODULE##_Caps_t* caps)                                                    \
    {                                                                                              \
        return call(__func__, "", [&](Context&) {                                                  \
            *caps = __VA_ARGS__;                                                                   \
            return ZU_OK;                                                                          \
        });                                                                                        \
    }

extern "C" {

DEFINE_MODULE(ZU_VENC, Kind::encoder)
DEFINE_MODULE(ZU_ACAP, Kind::audio)
DEFINE_MODULE(ZU_TSMUX, Kind::multiplexer)
DEFINE_CLOSE(ZU_CAP, Kind::capture)
DEFINE_CALLBACKS(ZU_CAP, Kind::capture)
DEFINE_CALLBACKS(ZU_ACAP, Kind::audio)
DEFINE_CALLBACKS(ZU_TSMUX, Kind::multiplexer)
DEFINE_CAPS(ZU_VENC, Middleware::instance().settings.encoder)
DEFINE_CAPS(ZU_ACAP, {1})
DEFINE_CAPS(ZU_VIDEO, {})
DEFINE_CAPS(ZU_AUDIO, {})
}

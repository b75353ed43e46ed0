#include "audio/capture_session.h"
#include "audio/pcm_reader.h"
#include "audio/sound_choice.h"
#include "base/handle_table.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <zu3/acap.h>
#include <zu3_host/sound_time.h>

namespace zu3host {

/** One open audio capture handle. Thread-safe. */
class AudioDevice {
public:
    /**
     * Starts to listen; a second call does nothing. Throws like CaptureUse, check_sound_choice().
     */
    void start();
    /** Ends listening and drops what was not read. */
    void stop();
    /** Bytes waiting to be read; 0 while not started. */
    size_t level();
    /** Moves whole frames out, at most `size` bytes. */
    size_t read(void* dst, size_t size);
    /** @param percent 0 to 100; scales the sound that is read from now on */
    void set_volume(uint32_t percent);

private:
    std::mutex mutex_;
    std::unique_ptr<CaptureUse> use_;
    std::unique_ptr<PcmReader> reader_;
    uint32_t volume_ = 100;
};

namespace {

/** `bytes` of samples at an address of any alignment. */
void scale(void* samples, size_t bytes, uint32_t percent)
{
    auto* at = static_cast<uint8_t*>(samples);
    for (size_t done = 0; done < bytes; done += sizeof(int16_t)) {
        int16_t sample;
        std::memcpy(&sample, at + done, sizeof sample);
        sample = static_cast<int16_t>(sample * static_cast<int32_t>(percent) / 100);
        std::memcpy(at + done, &sample, sizeof sample);
    }
}

std::atomic<uint64_t> time_of_last_read{0};

} // namespace

void AudioDevice::start()
{
    const std::lock_guard lock(mutex_);
    if (use_)
        return;
    check_sound_choice();
    auto use = std::make_unique<CaptureUse>();
    reader_ = make_pcm_reader();
    use_ = std::move(use);
}

void AudioDevice::stop()
{
    const std::lock_guard lock(mutex_);
    reader_.reset();
    use_.reset();
}

size_t AudioDevice::level()
{
    const std::lock_guard lock(mutex_);
    return reader_ ? reader_->level() : 0;
}

size_t AudioDevice::read(void* dst, size_t size)
{
    const std::lock_guard lock(mutex_);
    if (!reader_)
        return 0;
    const size_t bytes = reader_->read(dst, size);
    // From its end, since a read may begin behind sound that was lost.
    if (bytes > 0)
        time_of_last_read.store(
            static_cast<uint64_t>(reader_->time_of_next_us() -
                                  static_cast<int64_t>(bytes / pcm_frame_bytes) * 1'000'000 /
                                      pcm_rate),
            std::memory_order_relaxed);
    if (volume_ != 100)
        scale(dst, bytes, volume_);
    return bytes;
}

void AudioDevice::set_volume(uint32_t percent)
{
    const std::lock_guard lock(mutex_);
    volume_ = percent;
}

} // namespace zu3host

// The audio capture's contract functions: handles to objects, arguments checked.

using namespace zu3host;

namespace {

constexpr auto devices = handle_table<AudioDevice, 0x500>;

std::atomic<bool> initialised{false};
std::atomic<u64> last_callback_id{0};

/** Any action on an open device succeeds. */
template <typename Action> u32 with_device(const char* function, u32 handle, Action action)
{
    return with_object(function, devices, handle, [&](AudioDevice& device) {
        action(device);
        return u32{ZU_OK};
    });
}

} // namespace

HOST_EXPORT u32 ZU_ACAP_Init(const ZU_ACAP_InitParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return initialised.exchange(true) ? ZU_ALREADY_INITIALISED : ZU_OK;
}

HOST_EXPORT u32 ZU_ACAP_DeInit(void)
{
    initialised.store(false);
    // open handles keep their sessions
    return ZU_OK;
}

HOST_EXPORT u32 ZU_ACAP_GetCaps(ZU_ACAP_Caps_t* pstCaps)
{
    if (!pstCaps)
        return ZU_INVALID_ARGUMENT;
    *pstCaps = {};
    return ZU_OK;
}

HOST_EXPORT u32 ZU_ACAP_Open(const ZU_ACAP_OpenParams_t* pstParams, u32* pu32Handle)
{
    if (!pstParams || !pu32Handle)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=] {
        zu3host::store_output(pu32Handle, devices().add(std::make_shared<AudioDevice>()));
        return u32{ZU_OK};
    });
}

HOST_EXPORT u32 ZU_ACAP_Close(u32 u32Handle)
{
    return at_border(__func__, [=]() -> u32 {
        const auto device = devices().remove(u32Handle);
        if (!device)
            return ZU_INVALID_ARGUMENT;
        // another thread's call may still use the object
        device->stop();
        return ZU_OK;
    });
}

// Audio capture has no events here, so a registration stores nothing and a removal always succeeds.
HOST_EXPORT u32 ZU_ACAP_RegisterCallback(u32 u32Handle, const ZU_ACAP_CallbackParams_t* pstParams,
                                         u64* pu64CallbackId)
{
    if (!pstParams || !pstParams->pfnCallback || !pu64CallbackId)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle,
                       [=](AudioDevice&) { *pu64CallbackId = ++last_callback_id; });
}

HOST_EXPORT u32 ZU_ACAP_UnRegisterCallback(u32 u32Handle, const ZU_ACAP_CallbackParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [](AudioDevice&) {});
}

HOST_EXPORT u32 ZU_ACAP_SetVolume(u32 u32Handle, u32 u32Volume)
{
    if (u32Volume > 100)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle,
                       [=](AudioDevice& device) { device.set_volume(u32Volume); });
}

HOST_EXPORT u32 ZU_ACAP_Start(u32 u32Handle, const ZU_ACAP_StartParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [](AudioDevice& device) { device.start(); });
}

HOST_EXPORT u32 ZU_ACAP_Stop(u32 u32Handle)
{
    return with_device(__func__, u32Handle, [](AudioDevice& device) { device.stop(); });
}

HOST_EXPORT u32 ZU_ACAP_GetAttr(u32 u32Handle, u32 u32Type, u32 u32Index, void* pValue)
{
    if (u32Type != ZU_ACAP_ATTR_BUFFER_LEVEL || u32Index != 0 || !pValue)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [=](AudioDevice& device) {
        *static_cast<u32*>(pValue) = static_cast<u32>(device.level());
    });
}

HOST_EXPORT u32 ZU_ACAP_Read(u32 u32Handle, const ZU_ACAP_ReadRequest_t* pstRequest,
                             ZU_ACAP_ReadResult_t* pstResult)
{
    if (!pstRequest || !pstResult || (!pstRequest->pBuffer && pstRequest->u32Size != 0))
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [=](AudioDevice& device) {
        *pstResult = {};
        pstResult->u32Size =
            static_cast<u32>(device.read(pstRequest->pBuffer, pstRequest->u32Size));
    });
}

HOST_EXPORT uint64_t zu3_host_sound_time(void)
{
    return zu3host::time_of_last_read.load(std::memory_order_relaxed);
}

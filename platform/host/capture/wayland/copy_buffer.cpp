#include "capture/wayland/copy_buffer.h"

#include <common/descriptor.h>
#include <fcntl.h>
#include <sys/mman.h>

namespace zu3host {

bool CopyLayout::is_possible() const
{
    constexpr uint32_t longest = 32768;
    constexpr uint64_t most_bytes = 1u << 30;
    return size.width && size.height && size.width <= longest && size.height <= longest &&
           stride >= size.width * 4 && uint64_t{stride} * size.height <= most_bytes;
}

std::unique_ptr<CopyBuffer> CopyBuffer::make(wl_shm* shm, const CopyLayout& layout)
{
    const common::Descriptor fd(memfd_create("screenrecord-copy", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd || ftruncate(fd.get(), static_cast<off_t>(layout.bytes())) != 0 ||
        fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        return nullptr;
    void* const memory = mmap(nullptr, layout.bytes(), PROT_READ, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED)
        return nullptr;
    std::unique_ptr<CopyBuffer> buffer(new CopyBuffer(layout, static_cast<uint8_t*>(memory)));
    wl_shm_pool* const pool =
        wl_shm_create_pool(shm, fd.get(), static_cast<int32_t>(layout.bytes()));
    if (!pool)
        return nullptr;
    buffer->proxy_ = wl_shm_pool_create_buffer(pool, 0, static_cast<int32_t>(layout.size.width),
                                               static_cast<int32_t>(layout.size.height),
                                               static_cast<int32_t>(layout.stride), layout.format);
    wl_shm_pool_destroy(pool);
    return buffer->proxy_ ? std::move(buffer) : nullptr;
}

CopyBuffer::~CopyBuffer()
{
    if (proxy_)
        wl_buffer_destroy(proxy_);
    munmap(memory_, layout_.bytes());
}

} // namespace zu3host

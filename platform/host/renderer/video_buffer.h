#pragma once

#include "renderer/blend_plane.h"

#include <srglworker/SrGlWorker.h>

namespace zu3host {

/** A picture whose description was checked against its memory. */
class Nv12Buffer final : public android::vexa_screenrecord::SrGlWorker::VideoBuffer {
public:
    Nv12Buffer(const TargetPlane& luma_plane, const TargetPlane& chroma_plane)
        : luma(luma_plane), chroma(chroma_plane)
    {
    }

    const TargetPlane luma;
    const TargetPlane chroma; /**< Cb and Cr of each two by two pixels, interleaved */
};

} // namespace zu3host

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
    /** Cb and Cr of each two by two pixels, interleaved */
    const TargetPlane chroma;
};

} // namespace zu3host

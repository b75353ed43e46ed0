#include "multiplexer/aac_encoder.h"

#include "audio/pcm_reader.h"
#include "base/host_log.h"

extern "C" {
#include <vo-aacenc/cmnMemory.h>
#include <vo-aacenc/voAAC.h>
}

namespace zu3host {

struct AacEncoder::Library {
    VO_AUDIO_CODECAPI functions = {};
    VO_MEM_OPERATOR memory = {cmnMemAlloc, cmnMemFree,    cmnMemSet, cmnMemCopy,
                              cmnMemCheck, cmnMemCompare, cmnMemMove};
    VO_HANDLE codec = nullptr;

    ~Library()
    {
        if (codec)
            functions.Uninit(codec);
    }
    bool open()
    {
        VO_CODEC_INIT_USERDATA user = {};
        user.memflag = VO_IMF_USERMEMOPERATOR;
        user.memData = &memory;
        AACENC_PARAM parameters = {pcm_rate, 128000, pcm_channels, 1};
        return voGetAACEncAPI(&functions) == VO_ERR_NONE &&
               functions.Init(&codec, VO_AUDIO_CodingAAC, &user) == VO_ERR_NONE &&
               functions.SetParam(codec, VO_PID_AAC_ENCPARAM, &parameters) == VO_ERR_NONE;
    }
};

AacEncoder::AacEncoder(std::unique_ptr<Library> library) : library_(std::move(library)) {}

AacEncoder::~AacEncoder() = default;

std::unique_ptr<AacEncoder> AacEncoder::open()
{
    auto library = std::make_unique<Library>();
    if (!library->open()) {
        HOST_LOGE("The AAC encoder cannot be opened; the recording gets no sound.");
        return nullptr;
    }
    return std::unique_ptr<AacEncoder>(new AacEncoder(std::move(library)));
}

size_t AacEncoder::encode(std::span<int16_t, aac_frame_samples * 2> pcm, std::span<uint8_t> out)
{
    VO_CODECBUFFER input = {reinterpret_cast<VO_PBYTE>(pcm.data()), pcm.size_bytes(), 0};
    VO_CODECBUFFER output = {out.data(), out.size(), 0};
    VO_AUDIO_OUTPUTINFO info = {};
    if (library_->functions.SetInputData(library_->codec, &input) != VO_ERR_NONE ||
        library_->functions.GetOutputData(library_->codec, &output, &info) != VO_ERR_NONE)
        return 0;
    return output.Length;
}

} // namespace zu3host

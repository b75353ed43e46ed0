#include "middleware/middleware.h"

namespace middleware {

namespace {

/** Stands for all failures whose meaning is the module's own. */
constexpr s64 module_failure = 0x7F;

const std::vector<s64> failures = {ZU_FAILURE, ZU_INVALID_ARGUMENT, module_failure};
const std::vector<s64> with_empty_success = {ZU_FAILURE, ZU_INVALID_ARGUMENT, module_failure,
                                             ZU_OK};
const std::vector<s64> initialisation = {ZU_FAILURE, ZU_INVALID_ARGUMENT, module_failure,
                                         ZU_ALREADY_INITIALISED};
const std::vector<s64> null = {0}, error_or_end = {-1, 0}, refusals = {1, -1};

const std::map<std::string, std::vector<s64>> exceptions = {
    {"ZU_ACAP_Init", initialisation},
    {"ZU_VENC_Init", initialisation},
    {"ZU_TSMUX_Init", initialisation},
    {"ZU_TSMUX_PushMediaData", {ZU_FAILURE, ZU_INVALID_ARGUMENT, module_failure, ZU_BUSY}},
    {"ZU_SYS_GetMmapLayout", with_empty_success},
    {"ZU_VENC_QueryEntireInjectBuffer", with_empty_success},
    {"ZU_TSMUX_CopyOutputStream", with_empty_success},
    {"ZU_ACAP_GetAttr", with_empty_success},
    {"ZU_ACAP_Read", with_empty_success},
    {"ZU_FS_Fopen", null},
    {"ZU_FS_Fread", error_or_end},
    {"ZU_FS_Fwrite", error_or_end},
    {"SrGlWorker::newWorker", null},
    {"VideoBuffer::newBuffer", null},
    {"SrGlWorker::prepare", refusals},
    {"SrGlWorker::setWatermark", refusals},
    {"SrGlWorker::render", refusals},
    {"SrGlWorker::reset", refusals},
    {"ZU_OS_DelayTask", {}}, // waits, and that is all
    {"systemTime", {}},
    {"__android_log_print", {}},
};

} // namespace

std::vector<s64> contract_results(const std::string& call)
{
    const auto found = exceptions.find(call);
    return found == exceptions.end() ? failures : found->second;
}

} // namespace middleware

#include "fault_expectations.h"

#include "middleware/state.h"

namespace faults {

namespace {

constexpr int any = 0;
/** For lines that only several faults of a call lead to. */
constexpr int only_with_others = -1;

/** A call that fails, as the tables name it. */
struct Call {
    Call(const char* call, int number = any, std::optional<s64> only = {})
        : name(call), nth(number), result(only)
    {
    }
    std::string name;
    /** among the calls of that name */
    int nth;
    /** for this result alone */
    std::optional<s64> result;
};

/** 0x%x and %d stand for the result */
using Lines = std::vector<std::string>;

/** Kinds of scenarios, as bits, and the last lines of theirs. */
struct Ending {
    unsigned in;
    Lines lines;
};
using Endings = std::vector<Ending>;

constexpr unsigned recordings = screen | files;
constexpr unsigned encoded_frames = inject | copy;
constexpr unsigned captures = encoded_frames | screen;
constexpr unsigned encoders = recordings | encoded_frames;

/** The visible effects of failing calls; of several rules for a fault, the first one counts. */
class Rules {
public:
    struct Rule {
        unsigned in;
        Call call;
        /** the client's call that answers failure */
        std::string failing;
        Lines errors;
    };

    /** Only the log shows it. */
    void says(unsigned in, const Call& call, const Lines& lines) { add({in, call, "", lines}); }
    void is_ignored(unsigned in, const Call& call) { add({in, call, "", {}}); }
    /** The client's call that writes the last line answers failure. */
    void fails(unsigned in, const Call& call, const Lines& lines)
    {
        add({in, call, lines.back().substr(0, lines.back().find(']')), lines});
    }
    /** The same, with an ending for each kind of scenario. */
    void fails(const Endings& endings, const Call& call, const Lines& begin)
    {
        for (const Ending& ending : endings) {
            Lines lines = begin;
            lines.insert(lines.end(), ending.lines.begin(), ending.lines.end());
            fails(ending.in, call, lines);
        }
    }
    void fails(unsigned in, const Call& call, const std::string& failing, const Lines& lines)
    {
        add({in, call, failing, lines});
    }

    const std::vector<Rule>& all() const { return rules_; }

private:
    void add(const Rule& rule) { rules_.push_back(rule); }

    std::vector<Rule> rules_;
};

const std::string no_mutex = "_SCREENRECORD_CreateTask]Fail to create Trancode mutex";
const std::string no_task = "_SCREENRECORD_CreateTask]Failed to ZU_OS_CreateTask(...)!";
const std::string no_stack =
    "_SCREENRECORD_CreateTask]Failed to malloc for VENC Get Source Tack Stack!";

const Ending encoder_of_a_recording = {
    recordings, {"SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Venc Failed!"}};
const Ending encoder_of_frames = {encoded_frames,
                                  {"video_capenc_open] _SCREENRECORD_OpenVenc Failed!"}};
const Endings captures_open = {
    {screen, {"SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Vcap Failed!"}},
    {encoded_frames, {"video_capenc_open] _SCREENRECORD_OpenVcap Failed!"}}};
const Ending stills_open = {stills, {"video_cap_open] _SCREENRECORD_OpenVcap Failed!"}};
const Ending sound_of_a_recording = {screen,
                                     {"SCREENRECORD_SetAudio][DEMO TRANSCODE] Open Acap Failed!"}};
const Endings multiplexer = {
    {recordings, {"SCREENRECORD_SetTsMux][DEMO TRANSCODE] Open Tsmux Failed!"}}};
const Endings writer = {
    {recordings,
     {"_SCREENRECORD_StartModule]Error 0x3: failed to _SCREENRECORD_CreateTask()",
      "SCREENRECORD_Start]Error 0x3: failed to Start TSMUX"}}};

Endings reader(const std::string& kind)
{
    return {
        {files,
         {"_SCREENRECORD_StartModule]Failed to Create " + kind + " Src Reader Handler Task(...)!",
          "SCREENRECORD_Start]Error 0x3: failed to Start " + kind + " SrcReader"}}};
}

/** A recording and capture-encode start their modules alike. */
Endings start_of(unsigned in, const std::string& recordings_name, const std::string& frames_name)
{
    return {{in, {"SCREENRECORD_Start]Error 0x%x: failed to Start " + recordings_name}},
            {encoded_frames, {"video_capenc_start]Error 0x%x: failed to Start " + frames_name}}};
}

std::string no_capabilities(const std::string& module)
{
    return "_SCREENRECORD_GetModuleCaps][DEMO TRANSCODE] Failed to Get " + module + " Caps";
}

std::string not_stopped(const std::string& call)
{
    return "_SCREENRECORD_StopModule][DEMO TRANSCODE] " + call + " FAIL";
}

void modules(Rules& rules)
{
    rules.says(~0u, "ZU_SYS_Init",
               {"_SCREENRECORD_InitModule]Error 0x%x: failed to ZU_SYS_Init()"});
    for (const char* call : {"ZU_ACAP_Init", "ZU_VENC_Init", "ZU_TSMUX_Init"})
        rules.is_ignored(recordings | pcm, {call, any, 2});
    rules.fails({{recordings, {"SCREENRECORD_Init]Failed to ZU_ACAP_Init(...)!"}},
                 {pcm, {"audio_cap_open] _SCREENRECORD_InitModule Failed!"}}},
                "ZU_ACAP_Init", {"_SCREENRECORD_InitModule]Failed to ZU_ACAP_Init(...)!"});
    rules.fails(recordings, "ZU_VENC_Init",
                {"_SCREENRECORD_InitModule]Fail to call ZU_VENC_Init() %d",
                 "SCREENRECORD_Init]Failed to ZU_VENC_Init(...)!"});
    rules.fails(recordings, "ZU_TSMUX_Init",
                {"_SCREENRECORD_InitModule]Error 0x%x: failed to ZU_TSMUX_Init()",
                 "SCREENRECORD_Init]Failed to ZU Tsmux Init(...)!"});
    rules.says(recordings | pcm, "ZU_ACAP_DeInit",
               {"_SCREENRECORD_DeInitModule]Failed to Deinit ACap"});
    rules.says(recordings, "ZU_VENC_DeInit", {"_SCREENRECORD_DeInitModule]Failed to Deinit Venc"});
    rules.says(recordings, "ZU_TSMUX_DeInit",
               {"_SCREENRECORD_DeInitModule]Failed to Deinit Tsmux"});
    for (const char* module : {"Video", "Venc"}) {
        const std::string call =
            module == std::string("Venc") ? "ZU_VENC_GetCaps" : "ZU_VIDEO_GetCaps";
        rules.fails({encoder_of_a_recording}, call.c_str(),
                    {no_capabilities(module), "_SCREENRECORD_OpenVenc]Venc Support!"});
        rules.fails({encoder_of_frames}, call.c_str(),
                    {no_capabilities(module),
                     "_SCREENRECORD_OpenVenc_NoTs]Out of Venc Support size, 0x0@0)"});
    }
    rules.says(encoders, "ZU_AUDIO_GetCaps", {no_capabilities("Audio")});
    rules.says(encoders, "ZU_ACAP_GetCaps", {no_capabilities("Acap")});
}

void files_of_the_recording(Rules& rules)
{
    rules.fails(recordings, {"ZU_FS_Fopen", 1},
                {"SCREENRECORD_Open]Error: failed to ZU_FS_Fopen(out.ts) for output TS stream"});
    rules.fails(
        files, {"ZU_FS_Fopen", 2},
        {"_SCREENRECORD_OpenSrcReader]Error: failed to ZU_FS_Fopen(a.aac) for Input Sourcen",
         "SCREENRECORD_SetAudio][DEMO TRANSCODE] Open AUDIO Src File Reader Failed!"});
    rules.fails(
        files, {"ZU_FS_Fopen", 3},
        {"_SCREENRECORD_OpenSrcReader]Error: failed to ZU_FS_Fopen(a.nv12) for Input Sourcen",
         "SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Src File Reader Failed!"});
    rules.fails(screen, "ZU_FS_Fclose", {"SCREENRECORD_Close]ZU_FS_Fclose Failed!"});
    rules.fails(files, {"ZU_FS_Fclose", 3}, {"SCREENRECORD_Close]ZU_FS_Fclose Failed!"});
    rules.says(files, "ZU_FS_Fclose", {"_SCREENRECORD_CloseSrcReader]ZU_FS_Fclose Failed!"});
}

void sound(Rules& rules)
{
    rules.fails({sound_of_a_recording, {pcm, {"audio_cap_open] _SCREENRECORD_OpenAcap Failed!"}}},
                "ZU_ACAP_Open", {"_SCREENRECORD_OpenAcap]ZU_ACAP_OPEN FAIL"});
    rules.fails({sound_of_a_recording}, "ZU_ACAP_RegisterCallback",
                {"_SCREENRECORD_OpenAcap]_SCREENRECORD_OpenAcap[*] Error:%d Fail to "
                 "register callback !."});
    rules.fails({{screen, {"SCREENRECORD_Start]Error 0x%x: failed to Start ACAP"}},
                 {pcm, {"audio_cap_start] _SCREENRECORD_StartModule cap Failed!"}}},
                "ZU_ACAP_Start", {"_SCREENRECORD_StartModule]Failed to ZU_ACAP_Start(...)!"});
    rules.is_ignored(pcm, {"ZU_ACAP_GetAttr", any, 0});
    rules.fails(pcm, "ZU_ACAP_GetAttr",
                {"audio_cap_getPCM]Error: audio_cap_getPCM: ZU_ACAP_GetAttr fail, ret=0x%x!!"});
    rules.is_ignored(pcm, {"ZU_ACAP_Read", any, 0});
    rules.says(pcm, "ZU_ACAP_Read",
               {"audio_cap_getPCM]audio_cap_getPCM: ZU_ACAP_Read fail, ret=0x%x!!"});
    rules.says(screen | pcm, "ZU_ACAP_Stop", {not_stopped("ZU_ACAP_STOP")});
    rules.says(screen | pcm, "ZU_ACAP_UnRegisterCallback",
               {"_SCREENRECORD_CloseAcap]ZU_ACAP_UnRegisterCallback Failed"});
    rules.says(screen | pcm, "ZU_ACAP_Close", {"_SCREENRECORD_CloseAcap]ZU_ACAP_Close Failed"});
}

void encoder(Rules& rules)
{
    rules.fails({encoder_of_a_recording}, "ZU_VENC_Open",
                {"_SCREENRECORD_OpenVenc]Fail to call ZU_VENC_Open()"});
    rules.fails({encoder_of_frames}, "ZU_VENC_Open",
                {"_SCREENRECORD_OpenVenc_NoTs]Fail to call ZU_VENC_Open()"});
    rules.fails(inject, {"ZU_VENC_QueryEntireInjectBuffer", any, 0}, "video_capenc_setWatermark",
                {});
    rules.is_ignored(copy, {"ZU_VENC_QueryEntireInjectBuffer", any, 0});
    rules.fails({encoder_of_frames}, "ZU_VENC_QueryEntireInjectBuffer",
                {"_SCREENRECORD_OpenVenc_NoTs]Failed to ZU_VENC_QueryBuffer(...)!"});
    rules.fails(start_of(recordings, "VENC", "VENC"), "ZU_VENC_Start",
                {"_SCREENRECORD_StartModule]Fail to call ZU_VENC_Start()"});
    rules.says(captures, "ZU_VENC_WriteBufferComplete",
               {"_SCREENRECORD_Callback]Failed to ZU_VENC_WriteBufferComplete(...)!"});
    rules.says(files, "ZU_VENC_WriteBufferComplete",
               {"_SCREENRECORD_VreaderTaskHandler]Failed to ZU_VENC_WriteBufferComplete(...)!"});
    rules.fails(encoded_frames, "ZU_VENC_SetAttr:0x1", "video_capenc_setBitRate", {});
    rules.says(encoders, "ZU_VENC_Stop", {not_stopped("ZU_VENC_STOP")});
    rules.says(encoders, "ZU_VENC_Close", {"_SCREENRECORD_CloseVenc]ZU_VENC_Close Failed"});
}

void capture(Rules& rules)
{
    rules.fails(captures_open, "ZU_CAP_Open",
                {"_SCREENRECORD_OpenVcap]Failed to ZU_CAP_Open(0x%x)!"});
    rules.fails({stills_open}, "ZU_CAP_Open",
                {"_SCREENRECORD_OpenVcapNoEnc]Failed to ZU_CAP_Open(...)!"});
    for (const auto& [call, line] :
         {std::pair("ZU_DISP_GetHandle", "_SCREENRECORD_ConnectDisp]Fail to ZU_DISP_GetHandle "),
          {"ZU_CAP_ConnectInput", "_SCREENRECORD_ConnectDisp]Fail to connect disp"}}) {
        rules.fails(captures_open, call, {line, "_SCREENRECORD_OpenVcap]Fail to Connect Disp!"});
        rules.fails({stills_open}, call,
                    {line, "_SCREENRECORD_OpenVcapNoEnc]Fail to Connect Disp!"});
    }
    rules.fails(captures_open, "ZU_CAP_RegisterCallback",
                {"_SCREENRECORD_RegisterCallback]ZU_CAP_RegisterCallback fail! ",
                 "_SCREENRECORD_OpenVcap]Error: _SCREENRECORD_OpenVcap(*) "
                 "_SCREENRECORD_RegisterCallback failed"});
    rules.fails(start_of(screen, "VCAP", "Vcap"), "ZU_CAP_CaptureStart",
                {"_SCREENRECORD_StartModule]Failed to ZU_CAP_CaptureStart(...)!"});
    rules.says(captures, "ZU_CAP_ProcessBufDone",
               {"_SCREENRECORD_Callback]\033[35m_SCREENRECORD_Callback *[ "
                "ZU_CAP_ProcessBufDone bufindex = 0 fail !!]\033[m"});
    rules.says(stills, "ZU_CAP_ProcessBufDone",
               {"video_cap_captureScreen]\033[35mvideo_cap_captureScreen *[ "
                "ZU_CAP_ProcessBufDone bufindex = 5 fail !!]\033[m"});
    rules.fails(stills, "ZU_CAP_CaptureOne", {"video_cap_captureScreen]ZU_CAP_CaptureOne fail! "});
    rules.says(captures, "ZU_CAP_CaptureStop", {not_stopped("ZU_VCAP_STOP")});
    rules.says(captures, "ZU_CAP_UnRegisterCallback",
               {"_SCREENRECORD_UnRegisterCallback]ZU_CAP_UnRegisterCallback fail! ",
                not_stopped("_SCREENRECORD_UnRegisterCallback")});
    rules.says(captures | stills, "ZU_CAP_DisconnectInput",
               {not_stopped("ZU_CAP_DisconnectInput")});
    rules.says(screen | inject | stills, {"ZU_CAP_DisconnectInput", only_with_others},
               {"_SCREENRECORD_ConnectDisp]Cap has connected to 0xd0"});
    rules.says(captures | stills, "ZU_CAP_Close", {"_SCREENRECORD_CloseVcap]ZU_CAP_Close Failed"});
}

void multiplexer_opens(Rules& rules)
{
    rules.fails(multiplexer, "ZU_SYS_GetMmapLayout",
                {"_SCREENRECORD_OpenTsmux]Error: Invalid mmap layout with id = 306"});
    rules.says(recordings, {"ZU_OS_Pa2NonCachedVa", 1},
               {"_SCREENRECORD_OpenTsmux]phyMemAddr: 0x2000000 phyMiuBaseAddr: 0x100000000"});
    rules.fails(multiplexer, "ZU_TSMUX_Open",
                {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to ZU_TSMUX_Open()"});
    rules.fails(multiplexer, "ZU_TSMUX_RegisterCallback",
                {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to ZU_TSMUX_RegisterCallback()"});
    rules.fails(multiplexer, "ZU_TSMUX_SetAttr:0x203",
                {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to "
                 "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL)"});
    rules.fails(recordings, {"ZU_TSMUX_AttachMediaSource", 1},
                {"SCREENRECORD_SetTsMux]Error 0x%x: failed to Attach Venc Stream for Tsmux"});
    rules.fails(recordings, {"ZU_TSMUX_AttachMediaSource", 2}, "SCREENRECORD_SetTsMux", {});
    rules.fails(recordings, {"ZU_TSMUX_SetAttr:0x200", 1},
                {"SCREENRECORD_SetTsMux]Error 0x%x: failed to "
                 "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, "
                 "leaving time = 1000 ms)"});
}

void multiplexer_runs_and_closes(Rules& rules)
{
    const std::string at_its_stop = "_SCREENRECORD_StopModule]Error 0x%x: failed to ";
    rules.fails(recordings, "ZU_TSMUX_Start",
                {"_SCREENRECORD_StartModule]Error 0x%x: failed to ZU_TSMUX_Start()",
                 "SCREENRECORD_Start]Error 0x%x: failed to Start TSMUX"});
    rules.is_ignored(recordings, {"ZU_TSMUX_PushMediaData", any, 15});
    rules.says(recordings, "ZU_TSMUX_PushMediaData",
               {"_SCREENRECORD_VencCbHandler]Error 0x%x: failed to "
                "ZU_TSMUX_PushMediaData(VencCbHandler)"});
    rules.is_ignored(recordings, {"ZU_TSMUX_CopyOutputStream", any, 0});
    rules.says(
        recordings, "ZU_TSMUX_CopyOutputStream",
        {"_SCREENRECORD_TsmuxTaskHandler]Error 0x%x: failed to ZU_TSMUX_CopyOutputStream()"});
    rules.says(recordings, {"ZU_TSMUX_SetAttr:0x200", 2},
               {"SCREENRECORD_Close]Failed to ZU_TSMUX_SetAttr()"});
    rules.says(recordings, "ZU_TSMUX_DetachMediaSource",
               {"SCREENRECORD_Close]Failed to DetachMediaSource() Video"});
    rules.says(recordings, "ZU_TSMUX_UnRegisterCallback",
               {at_its_stop + "ZU_TSMUX_UnRegisterCallback(u64CallbackId = 0x*)"});
    rules.says(recordings, "ZU_TSMUX_SetAttr:0x202",
               {at_its_stop + "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_"
                              "WHEN_STOP, bForceStop = 1)"});
    rules.says(recordings, "ZU_TSMUX_Stop",
               {"_SCREENRECORD_StopModule]Failed to ZU_TSMUX_Stop() with force stop = 1"});
    rules.says(recordings, "ZU_TSMUX_Close",
               {"_SCREENRECORD_CloseTsmux]Failed to ZU_TSMUX_Close()"});
}

void memory_and_watermark(Rules& rules)
{
    for (const auto& [call, line] :
         {std::pair("ZU_OS_Va2Pa", "ZU_OS_Va2Pa failed with external memory"),
          {"ZU_OS_IommuOperation:GET_BUFFINFO", "E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO failed"},
          {"ZU_OS_IommuOperation:GET_BUFFD", "E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD failed"}})
        rules.fails(inject, call, "video_capenc_setWatermark",
                    {std::string("video_capenc_setWatermark ") + line});
    rules.fails(inject, "SrGlWorker::newWorker", "video_capenc_setWatermark", {"newWorker failed"});
    rules.fails(inject, "SrGlWorker::setWatermark", "video_capenc_setWatermark",
                {"setWatermark failed"});
    const std::string at = "_video_cap_allocBuffer]_video_cap_allocBuffer ";
    rules.fails(stills, "ZU_OS_AllocateIommuMemory", "video_cap_getCaptureBuffers",
                {at + "ZU_OS_AllocateIommuMemory fail, tag: vdec_fb, size: 0x8000"});
    rules.fails(stills, "ZU_OS_IommuOperation:GET_BUFFD", "video_cap_getCaptureBuffers",
                {at + "GET_BUFFD fail, tag: vdec_fb, size: 0x8000"});
    rules.fails(inject, "SrGlWorker::prepare", "video_capenc_start", {"prepare failed"});
    rules.says(inject, "VideoBuffer::newBuffer",
               {"_SCREENRECORD_Callback]VideoBuffer::newBuffer failed"});
    rules.says(inject, "SrGlWorker::render",
               {"_SCREENRECORD_Callback]SrGlWorker::onRender failed"});
}

void workers(Rules& rules)
{
    const std::string venc = "_SCREENRECORD_StartModule]Failed to ZU VENC CreateTask(...)!";
    rules.fails(writer, {"ZU_OS_CreateMutex", 1}, {no_mutex});
    rules.fails(recordings, {"ZU_OS_CreateMutex", 2},
                {no_mutex, venc, "SCREENRECORD_Start]Error 0x3: failed to Start VENC"});
    rules.fails(reader("AUDIO"), {"ZU_OS_CreateMutex", 3}, {no_mutex});
    rules.fails(reader("VIDEO"), {"ZU_OS_CreateMutex", 4}, {no_mutex});
    rules.fails(encoded_frames, {"ZU_OS_CreateMutex", 1},
                {no_mutex, venc, "video_capenc_start]Error 0x3: failed to Start VENC"});
    rules.fails(writer, {"ZU_OS_CreateTask", 1}, {no_task});
    rules.fails(reader("AUDIO"), {"ZU_OS_CreateTask", 2}, {no_task});
    rules.fails(reader("VIDEO"), {"ZU_OS_CreateTask", 3}, {no_task});
    rules.fails(encoded_frames, {"ZU_OS_ObtainMutex", 3}, "video_capenc_getES", {});
    rules.fails(encoded_frames, {"ZU_OS_ObtainMutex", 4}, "video_capenc_setBitRate", {});
    rules.says(encoded_frames, {"ZU_OS_ObtainMutex", 5},
               {"video_capenc_requestKeyFrame]No key frame requested, the lock was not obtained"});
}

void allocations(Rules& rules)
{
    int nth = 0;
    for (const char* call : {"SCREENRECORD_Open", "SCREENRECORD_SetAudio", "SCREENRECORD_SetVideo"})
        rules.fails(recordings, {"malloc", ++nth},
                    {std::string(call) + "][DEMO TRANSCODE] FAILED malloc memory!"});
    rules.fails(writer, {"malloc", 4}, {no_stack});
    rules.fails(writer, {"malloc", 5}, {no_task});
    rules.says(recordings, {"malloc", 6},
               {"_SCREENRECORD_TsmuxTaskHandler]Error: failed to malloc(131072) for batch write"});
    rules.fails(reader("AUDIO"), {"malloc", 7}, {no_stack});
    rules.fails(reader("AUDIO"), {"malloc", 8}, {no_task});
    rules.fails(reader("VIDEO"), {"malloc", 9}, {no_stack});
    rules.fails(reader("VIDEO"), {"malloc", 10}, {no_task});
    const std::string no_watermark = "video_capenc_setWatermark no memory for the watermark";
    rules.fails(inject, {"malloc", 4}, "video_capenc_setWatermark", {no_watermark});
    rules.says(copy, {"malloc", 4}, {no_watermark});
    rules.fails(encoded_frames, "malloc", {"video_capenc_open]malloc 2097152 failed"});
}

/** A call that no rule names fails unnoticed. */
const Rules& all_rules()
{
    static const Rules all = [] {
        Rules rules;
        for (const auto fill :
             {modules, files_of_the_recording, sound, encoder, capture, multiplexer_opens,
              multiplexer_runs_and_closes, memory_and_watermark, workers, allocations})
            fill(rules);
        return rules;
    }();
    return all;
}

void replace_all(std::string& text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

std::string with_result(std::string text, s64 result)
{
    replace_all(text, "0x%x", middleware::hex(static_cast<u32>(result)));
    replace_all(text, "%d", std::to_string(result));
    return text;
}

bool is_for(const Rules::Rule& rule, Kind kind, const Fault& fault)
{
    return (rule.in & kind) != 0 && rule.call.name == fault.call &&
           (!rule.call.result || rule.call.result == fault.result);
}

} // namespace

Expectation expected_of(Kind kind, const Fault& fault, bool wherever)
{
    Expectation e;
    for (const Rules::Rule& rule : all_rules().all()) {
        if (!is_for(rule, kind, fault) ||
            (!wherever && rule.call.nth != any && rule.call.nth != fault.nth))
            continue;
        if (!rule.failing.empty())
            e.failing.insert(rule.failing);
        for (const std::string& line : rule.errors)
            e.errors.push_back(with_result(line, fault.result));
        if (!wherever)
            break;
    }
    return e;
}

bool matches(const std::string& pattern, const std::string& text)
{
    const size_t star = pattern.find('*');
    return star == std::string::npos ? text == pattern
                                     : text.starts_with(pattern.substr(0, star)) &&
                                           text.ends_with(pattern.substr(star + 1));
}

} // namespace faults

// The double must find what it claims to find: a silent checker makes every other test worthless.
#include "middleware/middleware.h"

namespace {

using middleware::MiddlewareTest;

s32 new_mutex(const char* name)
{
    const ZU_OS_MutexAttr_t attributes = {name, 0};
    s32 id = -1;
    EXPECT_EQ(ZU_OS_CreateMutex(&attributes, &id), 0u);
    return id;
}

u32 open_capture()
{
    const ZU_CAP_OpenParams_t params = {0};
    u32 handle = 0;
    ZU_CAP_Open(&params, &handle);
    return handle;
}

/** Ends the test: each of these words is in a problem that the double found. */
void expect_problems(std::initializer_list<const char*> expected)
{
    auto& mw = middleware::Middleware::instance();
    const std::string problems = middleware::joined(mw.ledger_problems());
    for (const char* words : expected)
        EXPECT_NE(problems.find(words), std::string::npos) << words << ", not among:\n" << problems;
    mw.reset();
}

// Catches a double that overlooks a call on a closed or unknown device, or a picture not returned.
TEST_F(MiddlewareTest, ADeviceThatIsUsedWronglyIsNamed)
{
    const u32 capture = open_capture();
    const ZU_CAP_CallbackParams_t registration = {};
    const ZU_CAP_CaptureParams_t params = {};
    ZU_CAP_FrameInfo_t frame = {};
    u64 registered = 0;
    ZU_CAP_RegisterCallback(capture, &registration, &registered);
    ZU_CAP_CaptureOne(capture, &params, &frame);
    ZU_CAP_Close(capture);
    ZU_CAP_Close(capture);
    ZU_VENC_Stop(0);
    expect_problems({"is closed while its callback is registered", "picture 5 was never given back",
                     "ZU_CAP_Close is called on dead or wrong handle",
                     "ZU_VENC_Stop is called on unknown handle 0x0"});
}

// Catches a double that overlooks a device, file, block, descriptor, module or task that is left.
TEST_F(MiddlewareTest, EverythingThatIsLeftIsNamed)
{
    const ZU_VENC_InitParams_t init = {};
    ZU_OS_IommuBufFd_t descriptor = {};
    ZU_OS_IommuAlloc_t request = {"vdec_fb", 4096, 3, 0, {}, 0};
    open_capture();
    ZU_FS_Fopen("out.ts", "wb");
    ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD, &descriptor);
    ZU_OS_AllocateIommuMemory(&request);
    ZU_VENC_Init(&init);
    mw.hold_tasks();
    u8 stack[64];
    s32 task = -1;
    const ZU_OS_TaskAttr_t attributes = {[](void*) {}, nullptr,       4,     1, {},
                                         stack,        sizeof(stack), "idle"};
    ZU_OS_CreateTask(&attributes, &task);
    expect_problems({"capture 0x11 is left open", "file out.ts is left open",
                     "descriptor 0 is given back but was not out",
                     "IOMMU block 0x280000000 is left", "ZU_VENC is left initialised",
                     "task idle is left"});
}

// Catches a double that overlooks a lock order that may deadlock or a misused mutex.
TEST_F(MiddlewareTest, AMutexThatIsUsedWronglyIsNamed)
{
    const s32 a = new_mutex("a"), b = new_mutex("b"), m = new_mutex("m");
    for (const auto& [first, second] : {std::pair(a, b), std::pair(b, a)}) {
        ZU_OS_ObtainMutex(first, 5000);
        ZU_OS_ObtainMutex(second, 5000);
        ZU_OS_ReleaseMutex(second);
        ZU_OS_ReleaseMutex(first);
    }
    ZU_OS_ObtainMutex(m, 5000);
    EXPECT_NE(ZU_OS_ObtainMutex(m, 5000), 0u);
    std::thread([m] { ZU_OS_ReleaseMutex(m); }).join();
    ZU_OS_DeleteMutex(m);

    s32 n = new_mutex("n"), task = -1;
    u8 stack[64];
    const auto hold = [](void* id) { ZU_OS_ObtainMutex(*static_cast<s32*>(id), 5000); };
    const ZU_OS_TaskAttr_t attributes = {hold, &n, 4, 1, {}, stack, sizeof(stack), "t"};
    ZU_OS_CreateTask(&attributes, &task);
    ZU_OS_DeleteTask(task);
    expect_problems({"mutexes b and a are obtained in both orders",
                     "mutex m is waited for by the thread that holds it",
                     "mutex m is released by a thread that does not hold it",
                     "mutex m is deleted while it is held", "task t ended while it held mutex n"});
}

} // namespace

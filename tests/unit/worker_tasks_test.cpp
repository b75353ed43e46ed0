/** The workers of a recording: the data they move, their end, and stops before they run. */
#include "modules/multiplexer_writer.h"
#include "modules/source_reader.h"
#include "table/worker_tasks.h"

#include "library_test.h"

namespace {

using WorkerTasks = LibraryTest;

// Catches a write per pass instead of per batch, and an end of the stream that is not written.
TEST_F(WorkerTasks, WriterBatchesMoreThan64KiBAndWritesTheRestAtTheEnd)
{
    ASSERT_TRUE(steps::record(0));
    Bytes stream;
    for (int pass = 0; pass < 3; pass++) {
        const Bytes part(0x8000, static_cast<u8>(pass + 1));
        stream.insert(stream.end(), part.begin(), part.end());
        mw.queue_output(part);
        mw.advance(100);
        EXPECT_EQ(mw.count("ZU_FS_Fwrite"), pass == 2) << "two halves are just the threshold";
    }
    const Bytes rest(0x10000, 9);
    stream.insert(stream.end(), rest.begin(), rest.end());
    // comes between the writer's last pass and the close
    mw.queue_output(rest);
    EXPECT_EQ(steps::close(0), 1u);
    EXPECT_EQ(mw.file("out.ts"), stream);
    EXPECT_CALLS(mw.calls_of({"ZU_FS_Fwrite"}),
                 {"ZU_FS_Fwrite(98304, 1, 0x800000f1)=1", "ZU_FS_Fwrite(65536, 1, 0x800000f1)=1"});
}

// Catches a writer that runs on after a failed copy or writes a batch that is no longer whole.
TEST_F(WorkerTasks, AFailedCopyEndsTheWriterWithoutItsBatch)
{
    ASSERT_TRUE(steps::record(0));
    mw.queue_output(Bytes(100));
    mw.advance(100);
    mw.take_logs();
    mw.fail("ZU_TSMUX_CopyOutputStream", {.result = 5});
    mw.advance(100);
    EXPECT_CALLS(
        errors(),
        {"E [_SCREENRECORD_TsmuxTaskHandler]Error 0x5: failed to ZU_TSMUX_CopyOutputStream()"});
    EXPECT_EQ(steps::close(0), 1u);
    EXPECT_TRUE(mw.file("out.ts").empty());
}

// Catches a time limit that ends early, late or not completely, and a writer that deletes itself.
TEST_F(WorkerTasks, TheTimeLimitClosesTheSlotAtTheFirstCheckBeyondIt)
{
    ASSERT_EQ(steps::one_call(10), 0);
    mw.advance(10900);
    EXPECT_EQ(task(0, TSMUX).bRunning, 1);
    mw.take_logs();
    mw.advance(100);
    EXPECT_TRUE(slot_is_closed(0));
    EXPECT_EQ(mw.count("ZU_FS_Fclose"), 1);
    const std::vector<std::string> logs = mw.take_logs();
    EXPECT_EQ(
        logs.front(),
        "D [_SCREENRECORD_TsmuxTaskHandler]_SCREENRECORD_TsmuxTaskHandler() Out of limitsec stop "
        "record _u32RecordTime = 10");
    EXPECT_EQ(logs.back(),
              "D [_SCREENRECORD_TsmuxTaskHandler]Exit _SCREENRECORD_TsmuxTaskHandler() ");
    EXPECT_EQ(middleware::joined(logs).find("Fail"), std::string::npos) << middleware::joined(logs);
    EXPECT_EQ(mw.count("ZU_OS_DeleteTask"), 0) << "the writer does not delete itself";
    EXPECT_EQ(steps::stop(0), 1u);
    EXPECT_EQ(mw.count("ZU_OS_DeleteTask"), 1) << "the next control call does";
    EXPECT_CALLS(mw.calls_of({"ZU_OS_DeleteMutex"}),
                 {"ZU_OS_DeleteMutex(m1)=0", "ZU_OS_DeleteMutex(m0)=0"});
}

// Catches a writer that ended at its limit and that the next call leaks or deletes twice.
TEST_F(WorkerTasks, ARetiredWriterIsReclaimedByWhateverComesNext)
{
    for (void (*next)() : {+[] { steps::open(0, "next.ts"); }, +[] { stopScreenRecord(); },
                           +[] { SCREENRECORD_DeInit(); }, +[] { audio_cap_open(); }}) {
        ASSERT_EQ(steps::one_call(1), 0);
        mw.advance(3000);
        EXPECT_TRUE(slot_is_closed(0));
        next();
        EXPECT_EQ(mw.count("ZU_OS_DeleteTask"), 1);
        steps::close_all();
        EXPECT_CALLS(mw.ledger_problems(), {});
        mw.take_calls();
    }
}

// Catches a stop that waits for a worker that never ran, or leaks its memory.
TEST_F(WorkerTasks, AStopBeforeAWorkerFirstRanNeitherWaitsNorLeaks)
{
    mw.add_file("a.nv12", Bytes(16));
    mw.hold_tasks();
    ASSERT_TRUE(steps::record(1, "a.nv12", "a.nv12"));
    const s64 before = mw.now_ms();
    EXPECT_EQ(steps::close(1), 1u);
    EXPECT_EQ(mw.now_ms(), before) << "a call waited";
    EXPECT_EQ(middleware::library_allocations_left(), 0u)
        << "the argument blocks of tasks that never ran";
    EXPECT_EQ(mw.count("ZU_FS_Fwrite"), 0);
}

// Catches a stop that waits for a hanging worker for ever, and a mutex released by another thread.
TEST_F(WorkerTasks, AWorkerThatHangsIsDeletedAndItsMutexNotReleasedByTheDeleter)
{
    mw.add_file("a.nv12", Bytes(640 * 480 * 3 / 2 * 2));
    ASSERT_TRUE(steps::configure(1, "a.nv12"));
    middleware::Gate hang;
    mw.inside("ZU_FS_Fread", [&] { hang.wait(); });
    ASSERT_EQ(steps::start(1), 1u);
    mw.advance(28);
    ASSERT_TRUE(hang.wait_for_arrival());
    const s64 before = mw.now_ms();
    // a device would kill it here
    mw.inside("ZU_OS_DeleteTask", [&] { hang.open(); });
    EXPECT_EQ(steps::stop(1), 1u);
    EXPECT_GE(mw.now_ms() - before, 5000);
    EXPECT_EQ(task(1, VREADER).s32MutexId, -1);
}

// Catches a worker that outlives its deletion and writes into, or ends, the next recording.
TEST_F(WorkerTasks, AWorkerThatOutlivesItsDeletionTouchesNothingMore)
{
    for (const char* const call : {"ZU_FS_Fwrite", "ZU_TSMUX_CopyOutputStream"}) {
        SCOPED_TRACE(call);
        mw.tolerate_problem("task Tscode:");
        mw.settings.deletion_ms = 2000;
        ASSERT_TRUE(steps::configure(1));
        _u32RecordTime = 8;
        middleware::Gate hang;
        mw.inside(call, [&] { hang.wait(); });
        mw.queue_output(Bytes(0x18000));
        ASSERT_EQ(steps::start(1), 1u);
        mw.advance(300);
        ASSERT_TRUE(hang.wait_for_arrival());
        EXPECT_EQ(steps::close(1), 1u);
        mw.clear_script();
        ASSERT_TRUE(steps::record(1));
        // the limit of the first recording has passed, that of the second has not
        mw.advance(4000);
        mw.take_calls();
        hang.open();
        mw.advance(1000);
        EXPECT_EQ(mw.count("ZU_TSMUX_CopyOutputStream"), 10) << "one writer";
        EXPECT_EQ(mw.count("ZU_FS_Fwrite"), 0);
        EXPECT_FALSE(slot_is_closed(1));
        steps::close_all();
        mw.reset();
    }
}

// counted as the library's
extern "C" void* __wrap_malloc(size_t size);

// Catches an entry that needs the library's task records, leaks its argument, or runs cancelled.
TEST_F(WorkerTasks, AnEntryRunsWithoutACreationAndNotOnceItIsCancelled)
{
    mw.tolerate_problem("ZU_TSMUX_CopyOutputStream is called on unknown handle 0x0");
    const auto argument = [](u32 slot) {
        u32* const block = static_cast<u32*>(__wrap_malloc(sizeof(u32)));
        *block = slot;
        return block;
    };
    mw.inside("ZU_OS_DelayTask",
              [] { task(1, AREADER).bTaskExit = task(1, VREADER).bTaskExit = 1; },
              {.forever = true});
    for (int again = 0; again < 2; again++) {
        for (auto* const entry : {_SCREENRECORD_AreaderTaskHandler,
                                  _SCREENRECORD_VreaderTaskHandler, _SCREENRECORD_TsmuxTaskHandler})
            entry(argument(1));
        task(1, AREADER).bTaskExit = task(1, VREADER).bTaskExit = 0;
    }
    const std::vector<std::string> logs = mw.take_logs();
    EXPECT_EQ(
        std::ranges::count_if(logs, [](const std::string& l) { return l.starts_with("D ["); }), 6)
        << middleware::joined(logs);
    EXPECT_EQ(middleware::library_allocations_left(), 0u);
    mw.clear_script();

    mw.hold_tasks();
    SCREENRECORD_TaskCtrl_s& reader = task(0, AREADER);
    ASSERT_EQ(_SCREENRECORD_CreateTask(&reader, 0, 4096, _SCREENRECORD_AreaderTaskHandler), ZU_OK);
    mw.take_logs();
    mw.inside("ZU_OS_DeleteTask", [] {
        const auto& task = middleware::state().tasks.begin()->second;
        task.entry(task.argument);
    });
    EXPECT_EQ(_SCREENRECORD_DeleteTask(&reader), ZU_OK);
    EXPECT_CALLS(mw.take_logs(), {});
}

// Catches a second task in a record, which would lose the first.
TEST_F(WorkerTasks, ATaskThatRunsIsNotCreatedAgain)
{
    SCREENRECORD_TaskCtrl_s& reader = task(0, AREADER);
    ASSERT_EQ(_SCREENRECORD_CreateTask(&reader, 0, 4096, _SCREENRECORD_AreaderTaskHandler), ZU_OK);
    const s32 id = reader.s32TaskId;
    EXPECT_EQ(_SCREENRECORD_CreateTask(&reader, 0, 4096, _SCREENRECORD_AreaderTaskHandler),
              ZU_FAILURE);
    EXPECT_CALLS(errors(), {"E [_SCREENRECORD_CreateTask]Task has already running!!!"});
    EXPECT_EQ(reader.s32TaskId, id);
    EXPECT_EQ(_SCREENRECORD_DeleteTask(&reader), ZU_OK);
}

// Catches a reader that skips or repeats data, an index or a time, or shortens the last picture.
TEST_F(WorkerTasks, ReaderFeedsWholeBuffersWithRotatingIndexAndTime)
{
    const u32 size = mw.settings.encoder_input_size = 1000;
    Bytes source(size * 20 + 300);
    for (size_t i = 0; i < source.size(); i++)
        source[i] = static_cast<u8>(i / size + 1);
    mw.add_file("a.nv12", source);
    ASSERT_TRUE(steps::configure(1, "a.nv12"));
    mw.set_now_us(5'000'000);
    ASSERT_EQ(steps::start(1), 1u);
    mw.advance(28 * 40);
    const auto inputs = mw.encoder_inputs();
    ASSERT_EQ(inputs.size(), 21u);
    for (u32 i = 0; i < inputs.size(); i++) {
        EXPECT_EQ(inputs[i].u32InBufIndex, (i + 1) % 16);
        EXPECT_EQ(inputs[i].u32DataSize, size) << "also behind a short last read";
        EXPECT_EQ(inputs[i].bEntireInject + inputs[i].bRequestIFrame, 0);
        EXPECT_GE(inputs[i].u64Pts, 5'000'000u + 28'000 * i);
    }
    EXPECT_EQ(mw.last_encoder_input()[299], 21);
    const std::string at = "D [_SCREENRECORD_VreaderTaskHandler]";
    std::vector<std::string> expected(20, at + "Read data Size: 1000");
    expected.insert(expected.end(), {at + "Read data Size: 300", at + "Read end of file!",
                                     at + "Exit _SCREENRECORD_VreaderTaskHandler() "});
    std::vector<std::string> logs = mw.take_logs();
    std::erase_if(logs, [&](const std::string& line) { return !line.starts_with(at); });
    EXPECT_CALLS(logs, expected);
}

// Catches a reader that polls without a pause, gives up, or reuses a refused picture's index.
TEST_F(WorkerTasks, ReaderWaitsForAnEncoderThatLendsNothing)
{
    mw.settings.encoder_input_size = 1000;
    mw.add_file("a.nv12", Bytes(2000));
    ASSERT_TRUE(steps::configure(1, "a.nv12"));
    mw.fail("ZU_VENC_QueryBuffer");
    mw.fail("ZU_VENC_WriteBufferComplete");
    ASSERT_EQ(steps::start(1), 1u);
    for (int ms = 0; mw.count("ZU_VENC_QueryBuffer") == 0 && ms < 100; ms++)
        mw.advance(1);
    for (int query = 1; query <= 2; query++) {
        mw.advance(126);
        EXPECT_EQ(mw.count("ZU_VENC_QueryBuffer"), query)
            << "100 ms behind a failure, and a pass's 28 ms";
        mw.advance(2);
        EXPECT_EQ(mw.count("ZU_VENC_QueryBuffer"), query + 1);
    }
    EXPECT_EQ(mw.encoder_inputs().back().u32InBufIndex, 2u)
        << "the picture that was not taken is lost, and counted";
}

} // namespace

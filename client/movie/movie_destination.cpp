#include "movie/movie_destination.h"

#include <utility>

#include "movie/movie_recording.h"

namespace client::movie {

MovieDestination::MovieDestination(const std::string& path, bool overwrite, int standard_output,
                                   StopSignals& signals)
    : path_(path), sink_(path, overwrite, standard_output, signals)
{
    sink_.allow(most_waiting);
}

void MovieDestination::warn_of_slowness()
{
    if (!std::exchange(warned_, true))
        print_message(std::string("the ") + kind() + " of " + path_ +
                      " is too slow: pictures are left out until it catches up");
}

void MovieDestination::look()
{
    const ByteSink::State state = sink_.look();
    if (state == ByteSink::State::failed)
        disk_failed_ = true;
    if (state == ByteSink::State::reader_gone)
        reader_gone_ = true;
    if (disk_failed_)
        end_for("cannot write to " + path_ + " any more: " + error_text(sink_.error()));
}

void MovieDestination::look_at_file()
{
    if (problem_)
        return;
    problem_ = sink_.problem();
    lost_ = problem_.has_value();
}

void MovieDestination::give_up(const Failure& failure)
{
    look();
    if (!reader_gone_)
        end_for(failure.what());
    broken_ = true;
}

void MovieDestination::end_for(std::optional<std::string> reason)
{
    if (!problem_)
        problem_ = std::move(reason);
}

void MovieDestination::finish(TimePoint limit)
{
    sink_.finish(limit);
    look();
    if (disk_failed_ || problem_)
        return;
    problem_ = sink_.missing_end(path_);
    if (problem_)
        return;
    problem_ = sink_.problem_at_end();
    lost_ = problem_.has_value();
}

void MovieDestination::cut_torn_piece(uint64_t end)
{
    if (is_ordinary_file())
        sink_.cut_file(end);
}

} // namespace client::movie

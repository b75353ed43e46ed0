#pragma once

#include <array>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/** A program that runs until it is killed, at the latest with this object; its own words go nowhere. */
class Program {
public:
    explicit Program(std::vector<std::string> words)
    {
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t quiet;
        posix_spawn_file_actions_init(&quiet);
        posix_spawn_file_actions_addopen(&quiet, STDERR_FILENO, "/dev/null", 1, 0);
        if (posix_spawnp(&pid_, arguments[0], &quiet, nullptr, arguments.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&quiet);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() { kill(); }

    void signal(int number) const
    {
        if (pid_ > 0)
            ::kill(pid_, number);
    }
    void kill()
    {
        signal(SIGKILL);
        if (pid_ > 0)
            waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

/**
 * A place for a sound server of the test's own, to which PULSE_SERVER points; until start_server() there is
 * none.
 */
class SoundServerPlace {
public:
    SoundServerPlace()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "audio_test_XXXXXX").string();
        path_ = mkdtemp(pattern.data());
        for (const char* name : {"HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME"})
            setenv(name, path_.c_str(), 1);
        setenv("PULSE_SERVER", ("unix:" + socket()).c_str(), 1);
        unsetenv("DISPLAY");
    }
    ~SoundServerPlace() { std::filesystem::remove_all(path_); }
    SoundServerPlace(const SoundServerPlace&) = delete;
    SoundServerPlace& operator=(const SoundServerPlace&) = delete;

    std::vector<std::string> server() const
    {
        std::filesystem::remove(socket());
        return {"pulseaudio",
                "-n",
                "--daemonize=no",
                "--exit-idle-time=-1",
                "--use-pid-file=no",
                "--disable-shm=yes",
                "-L",
                "module-null-sink sink_name=first rate=48000",
                "-L",
                "module-native-protocol-unix auth-anonymous=1 socket=" + socket()};
    }
    /** Plays a minute of a sine into one of the outputs. */
    std::vector<std::string> player(double frequency, const char* sink) const
    {
        const std::string file = path_ + "/" + sink + ".raw";
        std::vector<int16_t> samples(48000 * 60);
        for (size_t n = 0; n < samples.size(); ++n)
            samples[n] = static_cast<int16_t>(std::lround(
                12000 * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(n) / 48000)));
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(samples.data()),
                   static_cast<std::streamsize>(samples.size() * 2));
        return {"pacat",
                "--raw",
                "--rate=48000",
                "--format=s16le",
                "--channels=1",
                std::string("--device=") + sink,
                file};
    }

private:
    std::string socket() const { return path_ + "/native"; }

    std::string path_;
};

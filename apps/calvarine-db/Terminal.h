#pragma once

// What calvarine-db needs around its commands: a progress bar on the terminal,
// and input files read so that a read error is an error, never an early end.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>

// The cause of a failed system call (errno) in French, the system's own words
// for the rare ones.
std::string systemReason(int error);

// A progress bar on stderr, drawn only when stderr is a terminal.
class ProgressBar {
public:
    explicit ProgressBar(std::string label);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void update(std::size_t done, std::size_t total);

private:
    std::string m_label;
    bool m_enabled;
    bool m_drawn = false;
    std::chrono::steady_clock::time_point m_last;
};

// A file read line by line, "-" standard input. Throws std::runtime_error
// naming the file when it cannot be opened, is a folder, or fails in the middle.
class InputFile {
public:
    explicit InputFile(std::filesystem::path path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // The next line without its '\n'; false at the end of the file.
    bool next(std::string& line);
    std::size_t size() const { return m_size; }
    std::size_t consumed() const { return m_consumed; }
    // The name messages give it: its path, or "entrée standard".
    std::string shownName() const;

private:
    bool fill();

    std::filesystem::path m_path;
    int m_fd = -1;
    bool m_stdin = false;
    std::size_t m_size = 0;
    std::size_t m_consumed = 0;
    std::string m_buffer;
    std::size_t m_start = 0;
    bool m_end = false;
};

#include "Terminal.h"

#include <cerrno>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

std::string systemReason(int error)
{
    switch (error) {
    case ENOENT:
        return "ce fichier n'existe pas";
    case EACCES:
    case EPERM:
        return "accès refusé";
    case EISDIR:
        return "c'est un dossier";
    case EIO:
        return "erreur d'entrée-sortie";
    case ENOSPC:
        return "plus de place sur le disque";
    case EROFS:
        return "système de fichiers en lecture seule";
    default:
        return std::generic_category().message(error);
    }
}

ProgressBar::ProgressBar(std::string label)
    : m_label(std::move(label))
    , m_enabled(isatty(STDERR_FILENO) != 0)
{
}

ProgressBar::~ProgressBar()
{
    if (m_enabled && m_drawn) {
        std::cerr << '\n';
    }
}

void ProgressBar::update(std::size_t done, std::size_t total)
{
    if (!m_enabled || total == 0) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (done < total && m_drawn && now - m_last < std::chrono::milliseconds(100)) {
        return;
    }
    m_last = now;
    m_drawn = true;
    constexpr std::size_t width = 40;
    const std::size_t filled = done * width / total;
    std::cerr << '\r' << m_label << " [" << std::string(filled, '#') << std::string(width - filled, '.') << "] "
              << done * 100 / total << "% " << done << '/' << total << std::flush;
}

InputFile::InputFile(std::filesystem::path path)
    : m_path(std::move(path))
{
    if (m_path == "-") {
        m_fd = STDIN_FILENO;
        m_stdin = true;
        return;
    }
    m_fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) {
        throw std::runtime_error("impossible de lire " + m_path.string() + " : " + systemReason(errno));
    }
    struct stat status {};
    if (::fstat(m_fd, &status) != 0) {
        const int error = errno;
        ::close(m_fd);
        throw std::runtime_error("impossible de lire " + m_path.string() + " : " + systemReason(error));
    }
    if (S_ISDIR(status.st_mode)) {
        ::close(m_fd);
        throw std::runtime_error(m_path.string() + " est un dossier : nommez ses fichiers .jsonl un par un");
    }
    m_size = S_ISREG(status.st_mode) ? static_cast<std::size_t>(status.st_size) : 0;
}

InputFile::~InputFile()
{
    if (!m_stdin) {
        ::close(m_fd);
    }
}

std::string InputFile::shownName() const
{
    return m_stdin ? "entrée standard" : m_path.string();
}

bool InputFile::fill()
{
    char chunk[1 << 16];
    for (;;) {
        const ssize_t count = ::read(m_fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw std::runtime_error("erreur de lecture dans " + shownName() + " : " + systemReason(errno) + " ; rien n'est importé");
        }
        if (count == 0) {
            return false;
        }
        m_buffer.erase(0, m_start);
        m_start = 0;
        m_buffer.append(chunk, static_cast<std::size_t>(count));
        return true;
    }
}

bool InputFile::next(std::string& line)
{
    for (;;) {
        const auto end = m_buffer.find('\n', m_start);
        if (end != std::string::npos) {
            line.assign(m_buffer, m_start, end - m_start);
            m_consumed += end + 1 - m_start;
            m_start = end + 1;
            return true;
        }
        if (m_end || !fill()) {
            m_end = true;
            if (m_start >= m_buffer.size()) {
                return false;
            }
            // A last line without its '\n'.
            line.assign(m_buffer, m_start);
            m_consumed += m_buffer.size() - m_start;
            m_start = m_buffer.size();
            return true;
        }
    }
}

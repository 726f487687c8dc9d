// calvarine-db: the administrator's tool for the record store.

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <streambuf>
#include <string>
#include <unistd.h>
#include <vector>

#include "Demo.h"
#include "Store.h"

namespace {

constexpr const char* kUsage = R"(usage: calvarine-db [--db PATH|URL] COMMAND
  import FILE.jsonl...           load fixtures (each file all or nothing)
  export [FILE...]               write files as JSON Lines to stdout (all when none named)
  select "SENTENCE" [--attrs "0 12"]
                                 one line per record, values separated by tabs
  demo [--statements N] [--seed S] [--big-scope N]
                                 write the demo data (ten years of statements)
The database defaults to $XDG_DATA_HOME/calvarine/demo.db (~/.local/share when unset);
--db takes a file (or sqlite:PATH) or a PostgreSQL URI (postgresql://user@host/db).
)";

std::filesystem::path defaultDatabase()
{
    const char* data = std::getenv("XDG_DATA_HOME");
    std::filesystem::path base;
    if (data && *data) {
        base = data;
    } else {
        const char* home = std::getenv("HOME");
        base = std::filesystem::path(home && *home ? home : ".") / ".local" / "share";
    }
    return base / "calvarine" / "demo.db";
}

// A progress bar on stderr, drawn only when stderr is a terminal.
class ProgressBar {
public:
    explicit ProgressBar(std::string label)
        : m_label(std::move(label))
        , m_enabled(isatty(STDERR_FILENO) != 0)
    {
    }
    ~ProgressBar()
    {
        if (m_enabled && m_drawn) {
            std::cerr << '\n';
        }
    }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void update(std::size_t done, std::size_t total)
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

private:
    std::string m_label;
    bool m_enabled;
    bool m_drawn = false;
    std::chrono::steady_clock::time_point m_last;
};

// Counts the bytes read through it, to show how far an import has gone.
class CountingBuffer : public std::streambuf {
public:
    CountingBuffer(std::streambuf& source, std::size_t total, ProgressBar& bar)
        : m_source(source)
        , m_total(total)
        , m_bar(bar)
    {
    }

protected:
    int_type underflow() override
    {
        const auto count = m_source.sgetn(m_buffer, sizeof m_buffer);
        if (count <= 0) {
            return traits_type::eof();
        }
        m_read += static_cast<std::size_t>(count);
        m_bar.update(std::min(m_read, m_total), m_total);
        setg(m_buffer, m_buffer, m_buffer + count);
        return traits_type::to_int_type(m_buffer[0]);
    }

private:
    std::streambuf& m_source;
    std::size_t m_total;
    ProgressBar& m_bar;
    std::size_t m_read = 0;
    char m_buffer[1 << 16];
};

std::string shown(std::string text)
{
    // Values inside a value: subvalues shown as the scenarios write them.
    for (auto& c : text) {
        if (c == '\xFC') {
            c = '~';
        }
    }
    return text;
}

int usage()
{
    std::cerr << kUsage;
    return 2;
}

std::size_t number(const std::string& text)
{
    std::size_t used = 0;
    const auto value = std::stoull(text, &used);
    if (used != text.size()) {
        throw std::invalid_argument(text);
    }
    return value;
}

int run(std::vector<std::string> args)
{
    std::string database = defaultDatabase().string();
    if (args.size() >= 2 && args[0] == "--db") {
        database = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) {
        return usage();
    }
    const std::string command = args[0];
    args.erase(args.begin());

    if (command == "import") {
        if (args.empty()) {
            return usage();
        }
        auto store = store::Store::connect(database, store::OpenMode::Create);
        for (const auto& file : args) {
            std::ifstream in(file, std::ios::binary);
            if (!in) {
                std::cerr << "calvarine-db: cannot read " << file << '\n';
                return 1;
            }
            std::error_code error;
            const auto size = std::filesystem::file_size(file, error);
            ProgressBar bar("import " + std::filesystem::path(file).filename().string());
            CountingBuffer counting(*in.rdbuf(), error ? 0 : static_cast<std::size_t>(size), bar);
            std::istream counted(&counting);
            store->importJsonLines(counted, file);
        }
        return 0;
    }
    if (command == "export") {
        auto store = store::Store::connect(database);
        store->exportJsonLines(std::cout, args);
        return std::cout.good() ? 0 : 1;
    }
    if (command == "select") {
        std::string sentence;
        std::string attributes = "0";
        for (std::size_t i = 0; i < args.size(); ++i) {
            if (args[i] == "--attrs" && i + 1 < args.size()) {
                attributes = args[++i];
            } else if (sentence.empty()) {
                sentence = args[i];
            } else {
                return usage();
            }
        }
        if (sentence.empty()) {
            return usage();
        }
        auto store = store::Store::connect(database);
        const auto result = store->select(sentence, attributes);
        if (result.empty()) {
            return 0;
        }
        for (const auto attribute : splitMarks(result.text(), DbaDynArray::kAttributeMark)) {
            std::string line;
            bool first = true;
            for (const auto value : splitMarks(attribute, DbaDynArray::kValueMark)) {
                line += first ? "" : "\t";
                line += shown(std::string(value));
                first = false;
            }
            std::cout << line << '\n';
        }
        return 0;
    }
    if (command == "demo") {
        store::DemoOptions options;
        for (std::size_t i = 0; i < args.size(); ++i) {
            if (i + 1 >= args.size()) {
                return usage();
            }
            if (args[i] == "--statements") {
                options.statements = number(args[++i]);
            } else if (args[i] == "--seed") {
                options.seed = number(args[++i]);
            } else if (args[i] == "--big-scope") {
                options.bigScope = number(args[++i]);
            } else {
                return usage();
            }
        }
        auto store = store::Store::connect(database, store::OpenMode::Create);
        ProgressBar bar("demo");
        store::generateDemo(*store, options, [&](std::size_t done, std::size_t total) { bar.update(done, total); });
        std::cerr << "demo data written to " << database << '\n';
        return 0;
    }
    return usage();
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const DbaError& error) {
        std::cerr << "calvarine-db: " << error.what() << '\n';
        return 1;
    } catch (const std::exception& error) {
        std::cerr << "calvarine-db: " << error.what() << '\n';
        return 2;
    }
}

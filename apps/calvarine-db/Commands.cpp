#include "Commands.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <streambuf>
#include <string_view>

#include "Consistency.h"
#include "Fixtures.h"
#include "Store.h"
#include "Terminal.h"

namespace {

using nlohmann::json;

// An attribute of a fixture line as text: values and subvalues joined with the
// store's marks, as the store would hold it.
std::string attributeText(const json& value)
{
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (!value.is_array()) {
        return value.dump();
    }
    std::string text;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (i) {
            text += '\xFD';
        }
        const json& part = value[i];
        if (part.is_array()) {
            for (std::size_t j = 0; j < part.size(); ++j) {
                text += (j ? "\xFC" : "") + attributeText(part[j]);
            }
        } else {
            text += attributeText(part);
        }
    }
    return text;
}

// The attributes of a record line ("record" array or "attrs" object); false for
// a line that holds no record (a dictionary name, a file's creation).
bool recordOf(const json& line, std::string& file, std::string& key, std::vector<std::string>& attributes)
{
    if (!line.is_object() || !line.contains("file") || !line.contains("key") || !line["file"].is_string()
        || !line["key"].is_string()) {
        return false;
    }
    file = line["file"].get<std::string>();
    key = line["key"].get<std::string>();
    attributes.clear();
    if (const auto record = line.find("record"); record != line.end() && record->is_array()) {
        for (const auto& attribute : *record) {
            attributes.push_back(attributeText(attribute));
        }
    } else if (const auto attrs = line.find("attrs"); attrs != line.end() && attrs->is_object()) {
        for (const auto& [number, value] : attrs->items()) {
            const int n = std::atoi(number.c_str());
            if (n >= 1 && n <= 32767) {
                if (attributes.size() < static_cast<std::size_t>(n)) {
                    attributes.resize(static_cast<std::size_t>(n));
                }
                attributes[static_cast<std::size_t>(n) - 1] = attributeText(value);
            }
        }
    }
    return true;
}

struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The lines written into it, one by one, to a function: the store's export read
// as it comes, without holding the whole database.
class LineSink : public std::streambuf {
public:
    explicit LineSink(std::function<void(const std::string&)> take)
        : m_take(std::move(take))
    {
    }

protected:
    int_type overflow(int_type c) override
    {
        if (c == traits_type::eof()) {
            return traits_type::not_eof(c);
        }
        if (c == '\n') {
            m_take(m_line);
            m_line.clear();
        } else {
            m_line += static_cast<char>(c);
        }
        return c;
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override
    {
        for (std::streamsize i = 0; i < count; ++i) {
            overflow(traits_type::to_int_type(text[i]));
        }
        return count;
    }

private:
    std::function<void(const std::string&)> m_take;
    std::string m_line;
};

} // namespace

namespace {

// Why a line is not JSON, in the administrator's words (the parser's own are
// English and name its inner states).
std::string unreadableJson(const json::parse_error& error, const std::string& line)
{
    if (std::string_view(error.what()).find("unexpected end of input") != std::string_view::npos || error.byte > line.size()) {
        return "ce n'est pas du JSON valable : la ligne s'arrête avant la fin de l'objet (un guillemet, une accolade ou un crochet manque)";
    }
    // byte counts from 1: the character the parser stopped at.
    const std::size_t column = std::max<std::size_t>(error.byte, 1);
    return "ce n'est pas du JSON valable : caractère inattendu en colonne " + std::to_string(column) + " (« "
        + line.substr(column - 1, 1) + " »)";
}

std::string plural(std::size_t count, const std::string& one, const std::string& many)
{
    return std::to_string(count) + " " + (count <= 1 ? one : many);
}

} // namespace

int importFiles(store::Store& store, const std::vector<std::string>& files, bool lenient)
{
    Consistency consistency([&](const std::string& file, const std::string& key) {
        return store.fileExists(file) && store.read(file, key).has_value();
    });
    std::vector<std::string> reports;
    // The space the load needs is checked first, beside the database.
    std::uintmax_t bytes = 0;
    for (const auto& name : files) {
        std::error_code error;
        const auto size = name == "-" ? 0 : std::filesystem::file_size(name, error);
        bytes += error ? 0 : size;
    }
    try {
        store.bulkLoad([&] { store.transaction([&] {
            for (const auto& name : files) {
                InputFile input(name);
                const std::string shown = input.shownName();
                ProgressBar bar("import " + (name == "-" ? shown : std::filesystem::path(name).filename().string()));
                std::map<std::string, std::size_t> records;
                std::size_t names = 0;
                std::size_t number = 0;
                std::string line;
                std::string file, key;
                std::vector<std::string> attributes;
                while (input.next(line)) {
                    ++number;
                    bar.update(input.consumed(), input.size());
                    if (line.find_first_not_of(" \t\r") == std::string::npos) {
                        continue;
                    }
                    const std::string where = shown + ":" + std::to_string(number);
                    json parsed;
                    try {
                        parsed = json::parse(line);
                    } catch (const json::parse_error& error) {
                        consistency.unreadable(where, unreadableJson(error, line));
                        continue;
                    }
                    try {
                        store::importJsonLine(store, line, where);
                    } catch (const DbaError& error) {
                        if (error.kind() != DbaError::Kind::BadData) {
                            throw;
                        }
                        consistency.unreadable(where, error.detail());
                        continue;
                    }
                    if (recordOf(parsed, file, key, attributes)) {
                        ++records[file];
                        consistency.record(file, key, attributes, where);
                    } else if (parsed.contains("dict")) {
                        ++names;
                    }
                }
                std::string perFile;
                std::size_t total = 0;
                for (const auto& [file, count] : records) {
                    perFile += (total ? ", " : " (") + file + " " + std::to_string(count);
                    total += count;
                }
                reports.push_back(shown + " : " + plural(total, "fiche", "fiches") + (perFile.empty() ? "" : perFile + ")") + ", "
                    + plural(names, "nom de dictionnaire", "noms de dictionnaire"));
            }
            consistency.finish();
            for (const auto& problem : consistency.problems()) {
                if (problem.unreadable || (!problem.notice && !lenient)) {
                    throw Refused("import refusé");
                }
            }
        }); }, bytes);
    } catch (const Refused&) {
        std::size_t errors = 0;
        bool unreadable = false;
        for (const auto& problem : consistency.problems()) {
            if (!problem.notice) {
                std::cerr << problem.where << " : " << problem.what << '\n';
                ++errors;
                unreadable = unreadable || problem.unreadable;
            }
        }
        std::cerr << "calvarine-db : import refusé, " << plural(errors, "erreur", "erreurs") << " ; rien n'est importé";
        if (!unreadable) {
            std::cerr << " (--lenient importe ces fiches avec un avertissement chacune)";
        }
        std::cerr << '\n';
        return 1;
    }
    for (const auto& problem : consistency.problems()) {
        std::cerr << (problem.notice ? "avis : " : "avertissement : ") << problem.where << " : " << problem.what << '\n';
    }
    for (const auto& report : reports) {
        std::cout << report << '\n';
    }
    return 0;
}

int checkDatabase(store::Store& store)
{
    // Organisations and entities first, so every reference is answered when met.
    std::vector<std::string> files;
    for (const char* first : {"ASSOCIATION", "ORGPRISECHARGE"}) {
        if (store.fileExists(first)) {
            files.emplace_back(first);
        }
    }
    for (auto& file : store.files()) {
        if (file != "ASSOCIATION" && file != "ORGPRISECHARGE" && file != "TEMPO") {
            files.push_back(std::move(file));
        }
    }
    Consistency consistency;
    std::size_t records = 0;
    std::string file, key;
    std::vector<std::string> attributes;
    LineSink sink([&](const std::string& line) {
        if (recordOf(json::parse(line), file, key, attributes)) {
            ++records;
            consistency.record(file, key, attributes, file + " \"" + key + "\"");
        }
    });
    std::ostream out(&sink);
    store::exportJsonLines(store, out, files);
    consistency.finish();
    for (const auto& problem : consistency.problems()) {
        std::cout << (problem.notice ? "avis : " : "erreur : ") << problem.where << " : " << problem.what << '\n';
    }
    const std::size_t errors = consistency.errors();
    std::cout << "check : " << plural(records, "fiche", "fiches") << ", " << plural(errors, "erreur", "erreurs") << ", "
              << plural(consistency.notices(), "avis", "avis") << '\n';
    return errors == 0 ? 0 : 1;
}

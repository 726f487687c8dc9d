// Fixtures: the JSON Lines import and export of the store, on its interface.

#include "Fixtures.h"

#include <algorithm>
#include <charconv>
#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>

#include "database/DbaError.h"

namespace store {

namespace {

using nlohmann::json;

[[noreturn]] void bad(const std::string& detail)
{
    throw DbaError(DbaError::Kind::BadData, "fixture", detail);
}

// A string of fixture data: marks are the store's own and never data.
const std::string& text(const json& value, std::string_view what)
{
    if (!value.is_string()) {
        bad(std::string(what) + " doit être une chaîne");
    }
    const auto& string = value.get_ref<const std::string&>();
    if (string.find_first_of("\xFE\xFD\xFC") != std::string::npos) {
        bad(std::string(what) + " contient un octet séparateur (FC, FD ou FE)");
    }
    return string;
}

std::string joinParts(const json& value, char mark, std::string_view what, const std::function<std::string(const json&)>& part)
{
    if (value.is_string()) {
        return text(value, what);
    }
    if (!value.is_array()) {
        bad(std::string(what) + " doit être une chaîne ou un tableau");
    }
    std::string out;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (i) {
            out += mark;
        }
        out += part(value[i]);
    }
    return out;
}

std::string attributeText(const json& value)
{
    return joinParts(value, DbaDynArray::kValueMark, "un attribut", [](const json& v) {
        return joinParts(v, DbaDynArray::kSubvalueMark, "une valeur", [](const json& s) { return text(s, "une sous-valeur"); });
    });
}

const json& field(const json& line, const char* name)
{
    const auto found = line.find(name);
    if (found == line.end()) {
        bad(std::string("il manque le champ \"") + name + "\"");
    }
    return *found;
}

void onlyFields(const json& line, std::initializer_list<std::string_view> allowed)
{
    for (const auto& item : line.items()) {
        if (std::find(allowed.begin(), allowed.end(), item.key()) == allowed.end()) {
            bad("champ \"" + item.key() + "\" inconnu");
        }
    }
}

void applyLine(Store& store, const json& line)
{
    if (!line.is_object()) {
        bad("une ligne doit être un objet JSON");
    }
    if (line.contains("dict")) {
        onlyFields(line, {"dict", "name", "attr", "justify"});
        const auto& file = text(field(line, "dict"), "\"dict\"");
        const auto& name = text(field(line, "name"), "\"name\"");
        const auto& attr = field(line, "attr");
        if (!attr.is_number_integer() || attr.get<long long>() < 0 || attr.get<long long>() > 32767) {
            bad("\"attr\" doit être un numéro d'attribut de 0 à 32767");
        }
        auto justify = Justify::Left;
        if (line.contains("justify")) {
            const auto& j = text(field(line, "justify"), "\"justify\"");
            if (j != "L" && j != "R") {
                bad("\"justify\" vaut \"L\" ou \"R\"");
            }
            justify = j == "R" ? Justify::Right : Justify::Left;
        }
        store.defineName(file, name, attr.get<int>(), justify);
        return;
    }
    if (!line.contains("file")) {
        bad("une ligne a besoin de \"file\" ou de \"dict\"");
    }
    onlyFields(line, {"file", "key", "record", "attrs"});
    const auto& file = text(field(line, "file"), "\"file\"");
    if (!line.contains("key")) {
        if (line.contains("record") || line.contains("attrs")) {
            bad("\"record\" et \"attrs\" demandent une \"key\"");
        }
        store.createFile(file);
        return;
    }
    const auto& key = text(field(line, "key"), "\"key\"");
    if (line.contains("record") && line.contains("attrs")) {
        bad("une ligne porte \"record\" ou \"attrs\", pas les deux");
    }
    DbaDynArray record;
    if (line.contains("record")) {
        const auto& attributes = field(line, "record");
        if (!attributes.is_array()) {
            bad("\"record\" doit être un tableau d'attributs");
        }
        if (attributes.size() > 32767) {
            bad("\"record\" a plus de 32767 attributs");
        }
        std::string whole;
        for (std::size_t i = 0; i < attributes.size(); ++i) {
            if (i) {
                whole += DbaDynArray::kAttributeMark;
            }
            whole += attributeText(attributes[i]);
        }
        record.setText(std::move(whole));
    } else if (line.contains("attrs")) {
        const auto& attributes = field(line, "attrs");
        if (!attributes.is_object()) {
            bad("\"attrs\" doit être un objet de numéros d'attributs");
        }
        for (const auto& item : attributes.items()) {
            const auto& number = item.key();
            int n = 0;
            const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), n);
            if (error != std::errc() || end != number.data() + number.size() || n < 1 || n > 32767) {
                bad("\"" + number + "\" n'est pas un numéro d'attribut de 1 à 32767");
            }
            record.setAttribute(static_cast<std::int16_t>(n), attributeText(item.value()));
        }
    }
    // Checks the key; a session-private file's record goes to this session.
    store.write(file, key, record.text());
}

json attributeJson(std::string_view attribute)
{
    if (attribute.find_first_of("\xFD\xFC") == std::string_view::npos) {
        return std::string(attribute);
    }
    json values = json::array();
    for (const auto value : splitMarks(attribute, DbaDynArray::kValueMark)) {
        if (value.find(DbaDynArray::kSubvalueMark) == std::string_view::npos) {
            values.push_back(std::string(value));
            continue;
        }
        json subvalues = json::array();
        for (const auto subvalue : splitMarks(value, DbaDynArray::kSubvalueMark)) {
            subvalues.push_back(std::string(subvalue));
        }
        values.push_back(std::move(subvalues));
    }
    return values;
}

std::string dump(const json& line, std::string_view what)
{
    try {
        return line.dump();
    } catch (const json::exception& error) {
        throw DbaError(DbaError::Kind::BadData, "export " + std::string(what), error.what());
    }
}

} // namespace

void importJsonLine(Store& store, std::string_view line, std::string_view source)
{
    std::istringstream in{std::string(line)};
    importJsonLines(store, in, source);
}

void importJsonLines(Store& store, std::istream& in, std::string_view source)
{
    std::size_t number = 0;
    store.transaction([&] {
        std::string line;
        while (std::getline(in, line)) {
            ++number;
            if (line.find_first_not_of(" \t\r") == std::string::npos) {
                continue;
            }
            try {
                applyLine(store, json::parse(line));
            } catch (const json::exception& error) {
                throw DbaError(DbaError::Kind::BadData, std::string(source) + ":" + std::to_string(number), error.what());
            } catch (const DbaError& error) {
                // A fixture's own fault is said as it is; the store's with what it was doing.
                throw DbaError(error.kind() == DbaError::Kind::Storage ? error.kind() : DbaError::Kind::BadData,
                    std::string(source) + ":" + std::to_string(number),
                    error.context() == "fixture" ? error.detail() : error.context() + ": " + error.detail());
            }
        }
        // A read error ends getline as the end of the input would: never commit
        // a part of the input as if it were the whole.
        if (in.bad()) {
            throw DbaError(DbaError::Kind::Storage, std::string(source) + ":" + std::to_string(number + 1),
                "read error: the input could not be read to its end; nothing imported");
        }
    });
}

void exportJsonLines(Store& store, std::ostream& out, const std::vector<std::string>& only)
{
    const auto names = only.empty() ? store.files() : only;
    for (const auto& file : names) {
        if (!store.fileExists(file)) {
            throw DbaError(DbaError::Kind::NoFile, "export " + file, "no such file");
        }
    }
    for (const auto& file : names) {
        for (const auto& name : store.dictionary(file)) {
            json line{{"dict", file}, {"name", name.name}, {"attr", name.attribute}};
            if (name.justify == Justify::Right) {
                line["justify"] = "R";
            }
            out << dump(line, file) << '\n';
        }
    }
    for (const auto& file : names) {
        out << dump(json{{"file", file}}, file) << '\n';
        store.forEachStored(file, [&](std::string_view key, std::string_view record) {
            json attributes = json::array();
            if (!record.empty()) {
                for (const auto attribute : splitMarks(record, DbaDynArray::kAttributeMark)) {
                    attributes.push_back(attributeJson(attribute));
                }
            }
            out << dump(json{{"file", file}, {"key", std::string(key)}, {"record", std::move(attributes)}}, file + " " + std::string(key)) << '\n';
        });
    }
}

} // namespace store

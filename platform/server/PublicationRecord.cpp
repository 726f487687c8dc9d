#include "PublicationRecord.h"

#include <fstream>
#include <stdexcept>

namespace server {

namespace {

constexpr std::string_view kRecordHeader = "calvarine-publication 1";

// Names may hold any byte but '/' and NUL: those that would break a line of the record are escaped.
std::string escape(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        if (c == '%' || c == '\t' || c == '\n' || c == '\r') {
            static constexpr char kHex[] = "0123456789ABCDEF";
            out += '%';
            out += kHex[static_cast<unsigned char>(c) >> 4];
            out += kHex[static_cast<unsigned char>(c) & 0xF];
        } else {
            out += c;
        }
    }
    return out;
}

std::string unescape(std::string_view text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::vector<std::string> fields(const std::string& line)
{
    std::vector<std::string> out;
    std::size_t from = 0;
    for (std::size_t tab; (tab = line.find('\t', from)) != std::string::npos; from = tab + 1) {
        out.push_back(line.substr(from, tab - from));
    }
    out.push_back(line.substr(from));
    return out;
}

} // namespace

std::optional<std::vector<FusionBatch::File>> readPublicationRecord(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::string line;
    if (!std::getline(in, line) || line != kRecordHeader) {
        return std::nullopt;
    }
    std::vector<FusionBatch::File> files;
    while (std::getline(in, line)) {
        const auto parts = fields(line);
        if (parts.size() != 5) {
            return std::nullopt;
        }
        try {
            files.push_back({unescape(parts[0]), parts[1], parts[2], static_cast<dev_t>(std::stoull(parts[3])),
                static_cast<ino_t>(std::stoull(parts[4]))});
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }
    return files;
}

std::string publicationRecord(const std::vector<FusionBatch::File>& files)
{
    std::string text = std::string(kRecordHeader) + "\n";
    for (const FusionBatch::File& file : files) {
        text += escape(file.name) + "\t" + file.staged + "\t" + file.former + "\t" + std::to_string(file.device) + "\t"
            + std::to_string(file.inode) + "\n";
    }
    return text;
}

} // namespace server

#include "PgConnection.h"

#include <arpa/inet.h>
#include <cstring>
#include <libpq-fe.h>

#include "database/DbaError.h"

// COPY in PostgreSQL's binary format: a signature, flags and a header extension,
// then per row a 16-bit field count and per field a 32-bit length (-1 for NULL)
// and the bytes, then -1 as the count. All integers are big-endian.

namespace store::pg {

namespace {

constexpr char kSignature[] = "PGCOPY\n\377\r\n";
constexpr std::size_t kSignatureSize = 11;
constexpr std::size_t kHeaderSize = kSignatureSize + 8;

void putInt16(std::string& out, std::int16_t value)
{
    const auto big = htons(static_cast<std::uint16_t>(value));
    out.append(reinterpret_cast<const char*>(&big), 2);
}

void putInt32(std::string& out, std::int32_t value)
{
    const auto big = htonl(static_cast<std::uint32_t>(value));
    out.append(reinterpret_cast<const char*>(&big), 4);
}

std::int32_t takeInt32(std::string_view& in)
{
    std::uint32_t big = 0;
    std::memcpy(&big, in.data(), 4);
    in.remove_prefix(4);
    return static_cast<std::int32_t>(ntohl(big));
}

std::int16_t takeInt16(std::string_view& in)
{
    std::uint16_t big = 0;
    std::memcpy(&big, in.data(), 2);
    in.remove_prefix(2);
    return static_cast<std::int16_t>(ntohs(big));
}

struct FreeCopyData {
    void operator()(char* data) const { PQfreemem(data); }
};

} // namespace

BinaryRows::BinaryRows()
{
    m_data.append(kSignature, kSignatureSize);
    putInt32(m_data, 0); // flags
    putInt32(m_data, 0); // no header extension
}

void BinaryRows::add(std::initializer_list<std::string_view> fields)
{
    putInt16(m_data, static_cast<std::int16_t>(fields.size()));
    for (const auto field : fields) {
        putInt32(m_data, static_cast<std::int32_t>(field.size()));
        m_data.append(field);
    }
    ++m_rows;
}

const std::string& BinaryRows::finished()
{
    if (!m_finished) {
        putInt16(m_data, -1);
        m_finished = true;
    }
    return m_data;
}

Result Connection::startCopy(const std::string& sql, std::string_view context, int expected)
{
    ensureConnected(context);
    if (!PQsendQuery(m_conn.get(), sql.c_str())) {
        fail(context, nullptr);
    }
    while (PQisBusy(m_conn.get()) && awaitInput(context)) {
    }
    Result started(PQgetResult(m_conn.get()));
    if (!started || PQresultStatus(started.get()) != expected) {
        // An error: the rest of the answer is read so that the connection is ready.
        while (PGresult* rest = PQgetResult(m_conn.get())) {
            PQclear(rest);
        }
        fail(context, started.get());
    }
    return started;
}

void Connection::copyOut(const std::string& sql, std::string_view context, const RowVisitor& visit)
{
    startCopy(sql, context, PGRES_COPY_OUT);
    // Each data message holds one row; the first also holds the header.
    bool header = true;
    std::vector<std::string_view> fields;
    std::exception_ptr failure;
    std::string malformed;
    while (true) {
        char* raw = nullptr;
        const int size = PQgetCopyData(m_conn.get(), &raw, 1);
        if (size == 0) {
            if (!awaitInput(context)) {
                break; // lost: the result below says so
            }
            continue;
        }
        if (size < 0) {
            break; // -1: done, -2: failed, as the result below tells
        }
        const std::unique_ptr<char, FreeCopyData> owned(raw);
        if (failure || !malformed.empty()) {
            continue; // read to the end, so the connection stays usable
        }
        std::string_view data(raw, static_cast<std::size_t>(size));
        if (header) {
            header = false;
            if (data.size() < kHeaderSize || data.substr(0, kSignatureSize) != std::string_view(kSignature, kSignatureSize)) {
                malformed = "not a binary COPY stream";
                continue;
            }
            data.remove_prefix(kSignatureSize + 4);
            const auto extension = static_cast<std::size_t>(takeInt32(data));
            data.remove_prefix(std::min(extension, data.size()));
            if (data.empty()) {
                continue;
            }
        }
        if (data.size() < 2) {
            malformed = "a row cut short";
            continue;
        }
        const auto count = takeInt16(data);
        if (count < 0) {
            continue; // the end
        }
        fields.clear();
        for (int i = 0; i < count && malformed.empty(); ++i) {
            if (data.size() < 4) {
                malformed = "a row cut short";
                break;
            }
            const auto length = takeInt32(data);
            if (length < 0) {
                fields.emplace_back();
                continue;
            }
            if (data.size() < static_cast<std::size_t>(length)) {
                malformed = "a field cut short";
                break;
            }
            fields.push_back(data.substr(0, static_cast<std::size_t>(length)));
            data.remove_prefix(static_cast<std::size_t>(length));
        }
        if (malformed.empty()) {
            try {
                visit(fields);
            } catch (...) {
                failure = std::current_exception();
            }
        }
    }
    checked(answer(context), context);
    if (failure) {
        std::rethrow_exception(failure);
    }
    if (!malformed.empty()) {
        throw DbaError(DbaError::Kind::Storage, std::string(context), "the server's answer is malformed: " + malformed);
    }
}

void Connection::copyIn(const std::string& sql, std::string_view context, BinaryRows& rows)
{
    startCopy(sql, context, PGRES_COPY_IN);
    const std::string& data = rows.finished();
    // In pieces, so that libpq never holds a second copy of the whole load.
    constexpr std::size_t kPiece = 1 << 20;
    bool sent = true;
    for (std::size_t at = 0; at < data.size() && sent; at += kPiece) {
        const auto piece = std::min(kPiece, data.size() - at);
        sent = PQputCopyData(m_conn.get(), data.data() + at, static_cast<int>(piece)) == 1;
    }
    if (!sent || PQputCopyEnd(m_conn.get(), nullptr) != 1) {
        fail(context, nullptr);
    }
    checked(answer(context), context);
}

} // namespace store::pg

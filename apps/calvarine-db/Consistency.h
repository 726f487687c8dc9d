#pragma once

// What makes the records of a database contradict each other, found record by
// record as an import or a check reads them:
//  - a record without attributes (a line with a key and no "record");
//  - an archived statement whose key disagrees with its attributes: the key is
//    entity (3), activity letter (1), organisation (3), period yyyymm (6) and
//    invoice number (10, blank-padded), and attribute 1 must hold the period,
//    attribute 3 the invoice number (trailing blanks aside);
//  - an entity (ASSOCIATION) named by a statement or an activity and without a
//    record of its own.
// The screen would show such statements with a blank name, or the re-issue would
// find no statement for them and fail with a technical message.
//
// An organisation (ORGPRISECHARGE) named by statements and without a record is
// no error but a notice: real archives have them (an organisation closed since),
// and a statement addressed to it is still re-issued, under its code. One
// notice per organisation, however many statements name it.

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class Consistency {
public:
    struct Problem {
        std::string where; // "file.jsonl:12", or the file and key of a record
        std::string what;
        bool notice = false;     // a fact of a normal archive, not an error
        bool unreadable = false; // not a record at all: no import takes it
    };
    // Whether a record exists beyond those seen (in the database, say).
    using Exists = std::function<bool(const std::string& file, const std::string& key)>;

    explicit Consistency(Exists exists = {});

    // One record: its attributes from 1 on; empty: no attribute at all.
    void record(const std::string& file, const std::string& key, const std::vector<std::string>& attributes,
        const std::string& where);
    // A line that is no record at all (not JSON, not a fixture): an error in
    // its place among the records.
    void unreadable(const std::string& where, const std::string& what);
    // Call once every record was seen: references that no record answered.
    void finish();

    // Errors and notices, in the order of the records they were found at.
    const std::vector<Problem>& problems() const { return m_problems; }
    std::size_t errors() const;
    std::size_t notices() const { return m_problems.size() - errors(); }

private:
    void referEntity(const std::string& entity, const std::string& what, const std::string& where);
    void referOrganisation(const std::string& organisation, const std::string& statement, const std::string& where);
    void add(Problem problem);
    bool known(const std::string& file, const std::string& key);

    Exists m_exists;
    std::set<std::pair<std::string, std::string>> m_seen;         // organisation and entity records seen
    std::map<std::pair<std::string, std::string>, bool> m_looked; // answers of m_exists

    // References not answered when met, which a later record may still answer.
    // Memory stays bounded by the number of organisations and entities, not of
    // statements, whatever the order of the input: an organisation keeps the
    // first statement naming it and a count; a reference to an entity, an error
    // of its own unless answered, waits in a temporary file.
    struct NamedBy {
        std::size_t at = 0;  // the number of the first record naming it
        std::string where;
        std::string statement;
        std::size_t count = 0;
    };
    std::map<std::string, NamedBy> m_organisations;
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, CloseFile> m_entities;

    std::vector<std::pair<std::size_t, Problem>> m_found; // with the number of the record found at
    std::size_t m_records = 0;
    std::vector<Problem> m_problems;
};

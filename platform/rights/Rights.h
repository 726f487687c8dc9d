#pragma once

// Implementations of the rights interfaces the control is given
// (SorbelaneDroits, SorbelaneDroit).

#include <cstdint>
#include <memory>
#include <string>

#include "database/Dba.h"
#include "shell/Components.h"

// A right whose level is known.
class FixedRight : public SorbelaneDroit {
public:
    explicit FixedRight(std::int32_t level) : m_level(level) {}
    std::int32_t Niveau() const override { return m_level; }

private:
    std::int32_t m_level;
};

// The rights of a user as file DROITS of the database records them: the record
// under "<user>*<SCREENCODE>" holds the level in attribute 1. No record (or no
// file DROITS) means level 0, so a user without a right cannot print.
// LireDroit reads the record at each call; the right it gives keeps that level.
class DatabaseRights : public SorbelaneDroits {
public:
    // database must stay open while LireDroit is used.
    DatabaseRights(std::shared_ptr<DbaDatabase> database, std::string userName);

    // Throws DbaError when the database fails, std::invalid_argument when the
    // level recorded is not a whole number.
    std::shared_ptr<SorbelaneDroit> LireDroit(const std::string& screenCode) override;

    static std::string key(const std::string& userName, const std::string& screenCode);

private:
    std::shared_ptr<DbaDatabase> m_database;
    std::string m_userName;
};

// The same level on every screen, for hosts that do not read it from the database.
class FixedRights : public SorbelaneDroits {
public:
    explicit FixedRights(std::int32_t level) : m_level(level) {}
    std::shared_ptr<SorbelaneDroit> LireDroit(const std::string&) override { return std::make_shared<FixedRight>(m_level); }

private:
    std::int32_t m_level;
};

#pragma once

// Names of the files the control opens or queries, and the fixed keys it uses.
namespace FileNames {
inline constexpr const char* ACTIVITES = "ACTIVITES";
inline constexpr const char* ASSOCIATION = "ASSOCIATION";
inline constexpr const char* FACTURORG = "FACTURORG";
inline constexpr const char* ORGPRISECHARGE = "ORGPRISECHARGE";
inline constexpr const char* PERIODESPAIE = "PERIODESPAIE";
inline constexpr const char* TEMPO = "TEMPO";
inline constexpr const char* ARCHIVEBORDCAISSE = "ARCHIVEBORDCAISSE";
inline constexpr const char* DROITS = "DROITS";
} // namespace FileNames

namespace Keys {
inline constexpr const char* PeriodeCourante = "1";
inline constexpr const char* REQUETEBORDEXCEL = "REQUETEBORDEXCEL";
inline constexpr const char* BORDCAISSEEXCEL = "BORDCAISSEEXCEL";
} // namespace Keys

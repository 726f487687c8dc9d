#include "Demo.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>

#include "archive/Archive.h"
#include "database/DbaDynArray.h"
#include "database/FileNames.h"

namespace store {

namespace {

constexpr char AM = DbaDynArray::kAttributeMark;
constexpr char VM = DbaDynArray::kValueMark;
constexpr std::size_t kBatch = 100000;

const std::array kPlaces = {"DU VAL DE LOIRE", "DE LA VALLÉE DU LOT", "DES COTEAUX DE GASCOGNE", "DU PAYS D'AUGE",
    "DE LA HAUTE-GARONNE", "DU CANTON DE SAINT-GIRONS", "DES MONTS DU LYONNAIS", "DE LA PRESQU'ÎLE GUÉRANDAISE",
    "DU BOCAGE NORMAND", "DE L'AGGLOMÉRATION TOULOUSAINE", "DU PAYS BASQUE", "DES VOSGES SAOSNOISES",
    "DE LA PLAINE DE L'AIN", "DU PÉRIGORD VERT", "DE LA CÔTE D'ÉMERAUDE", "DU HAUT-JURA"};
const std::array kEntityKinds = {"AIDE À DOMICILE", "ASSOCIATION FAMILLES RURALES", "SERVICE DE SOINS INFIRMIERS",
    "ADMR", "ENTRAIDE ET SOLIDARITÉ", "PORTAGE DE REPAS", "MAINTIEN À DOMICILE DES AÎNÉS", "SOUTIEN AUX AIDANTS"};
const std::array kDepartments = {"AIN", "AISNE", "ALLIER", "ARDÈCHE", "ARIÈGE", "AUDE", "AVEYRON", "BOUCHES-DU-RHÔNE",
    "CALVADOS", "CANTAL", "CHARENTE-MARITIME", "CORRÈZE", "CÔTE-D'OR", "CÔTES-D'ARMOR", "DORDOGNE", "DOUBS", "DRÔME",
    "FINISTÈRE", "GARD", "HAUTE-GARONNE", "GERS", "GIRONDE", "HÉRAULT", "ILLE-ET-VILAINE", "ISÈRE", "JURA", "LANDES",
    "LOIRE-ATLANTIQUE", "LOT", "LOT-ET-GARONNE", "MAINE-ET-LOIRE", "MANCHE", "MORBIHAN", "NORD", "PUY-DE-DÔME",
    "PYRÉNÉES-ATLANTIQUES", "HAUTES-PYRÉNÉES", "RHÔNE", "SARTHE", "SAVOIE"};
const std::array kInsurers = {"HARMONIE MUTUELLE", "MUTUELLE GÉNÉRALE DE L'ÉDUCATION NATIONALE", "GROUPAMA",
    "MALAKOFF HUMANIS PRÉVOYANCE", "AG2R LA MONDIALE", "MUTUELLE NATIONALE TERRITORIALE", "AXA FRANCE VIE",
    "CAISSE NATIONALE DE RETRAITE DES AGENTS DES COLLECTIVITÉS LOCALES", "APRIL SANTÉ PRÉVOYANCE", "MACIF MUTUALITÉ"};
const std::array kFirstNames = {"JEANNE", "MARCEL", "SUZANNE", "ROGER", "ODETTE", "LUCIEN", "GERMAINE", "ANDRÉ",
    "YVONNE", "RENÉ", "MARGUERITE", "HENRI", "PAULETTE", "GEORGES", "SIMONE", "ÉMILE"};
const std::array kLastNames = {"MARTIN", "BERNARD", "DUBOIS", "THOMAS", "ROBERT", "RICHARD", "PETIT", "DURAND",
    "LEROY", "MOREAU", "SIMON", "LAURENT", "LEFÈVRE", "MICHEL", "GARCIA", "DAVID", "BERTRAND", "ROUX", "FOURNIER",
    "GIRARD", "BONNET", "DUPONT", "LAMBERT", "FONTAINE"};
struct Service {
    const char* label;
    int priceCents;
};
const std::array kServices = {Service{"AIDE MÉNAGÈRE", 2350}, Service{"AUXILIAIRE DE VIE", 2680},
    Service{"GARDE DE NUIT", 3120}, Service{"PORTAGE DE REPAS", 980}, Service{"TÉLÉASSISTANCE", 2450},
    Service{"SOINS INFIRMIERS", 3470}, Service{"TRANSPORT ACCOMPAGNÉ", 1860}, Service{"AIDE AUX COURSES", 2190}};

constexpr int kEntities = 30;
constexpr int kOrganisations = 152;
// Codes that statements name but that have no organisation record.
constexpr std::array kMissingOrganisations = {97, 131, 150};

std::string code3(int n)
{
    std::string text = std::to_string(n);
    return std::string(3 - std::min<std::size_t>(3, text.size()), '0') + text;
}

std::string entityCode(int i)
{
    // A few codes are not digits: codes are three characters, compared exactly.
    if (i == 27) {
        return "A12";
    }
    if (i == 28) {
        return "VAL";
    }
    return code3(i + 1);
}

// Activity letters of entity i; the last one has only an unknown letter.
std::string lettersOf(int i)
{
    if (i == kEntities - 1) {
        return "X";
    }
    static const std::array patterns = {"PMI", "P", "PM", "M", "PI", "I", "P"};
    return patterns[static_cast<std::size_t>(i) % patterns.size()];
}

std::string organisationName(int i, std::string& sigle)
{
    const std::string department = kDepartments[static_cast<std::size_t>(i / 4) % kDepartments.size()];
    const std::string number = code3(i % 100);
    switch (i % 4) {
    case 0:
        sigle = "CPAM" + number;
        return "CAISSE PRIMAIRE D'ASSURANCE MALADIE " + department;
    case 1:
        sigle = "CD" + number;
        return "CONSEIL DÉPARTEMENTAL " + department;
    case 2:
        sigle = "CAF" + number;
        return "CAF " + department;
    default:
        sigle = "MUT" + number;
        return kInsurers[static_cast<std::size_t>(i / 4) % kInsurers.size()];
    }
}

int periodAt(int current, int monthsBack)
{
    int year = current / 100;
    int month = current % 100 - monthsBack;
    while (month < 1) {
        month += 12;
        --year;
    }
    return year * 100 + month;
}

int lastDay(int period)
{
    static const std::array days = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const int year = period / 100;
    const int month = period % 100;
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[static_cast<std::size_t>(month - 1)];
}

struct Scope {
    std::string entity;
    char letter;
};

struct Planned {
    std::uint16_t scope;
    std::uint16_t organisation; // 1-based code
    std::uint16_t period;       // months back from the current period
};

template <typename Random>
std::size_t below(Random& random, std::size_t n)
{
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
}

std::string statementRecord(std::mt19937_64& random, int period, const std::string& sigle, const std::string& invoice)
{
    const int lines = 1 + static_cast<int>(below(random, 5));
    std::string beneficiaries, files, labels, quantities, prices, amounts;
    long long total = 0;
    for (int l = 0; l < lines; ++l) {
        const std::string sep = l ? std::string(1, VM) : std::string();
        const auto& service = kServices[below(random, kServices.size())];
        const long long quantity = 100 * static_cast<long long>(1 + below(random, 40)) + (below(random, 4) == 0 ? 50 : 0);
        const long long amount = quantity * service.priceCents / 100;
        beneficiaries += sep + std::string(kLastNames[below(random, kLastNames.size())]) + " " + kFirstNames[below(random, kFirstNames.size())];
        files += sep + std::to_string(100000 + below(random, 900000));
        labels += sep + std::string(service.label);
        quantities += sep + std::to_string(quantity);
        prices += sep + std::to_string(service.priceCents);
        amounts += sep + std::to_string(amount);
        total += amount;
    }
    std::string record = std::to_string(period);
    for (const auto& part : {sigle, invoice, std::to_string(period * 100 + lastDay(period)), beneficiaries, files, labels,
             quantities, prices, amounts, std::to_string(total)}) {
        record += AM;
        record += part;
    }
    return record;
}

} // namespace

void createSchema(Store& store)
{
    for (const char* file : {FileNames::ACTIVITES, FileNames::ASSOCIATION, FileNames::FACTURORG, FileNames::ORGPRISECHARGE,
             FileNames::PERIODESPAIE, FileNames::TEMPO, FileNames::DROITS, FileNames::ARCHIVEBORDCAISSE}) {
        store.createFile(file);
    }
    for (const auto& [name, attribute] : archive::kDictionary) {
        store.defineName(FileNames::ARCHIVEBORDCAISSE, name, attribute);
    }
}

void generateDemo(Store& store, const DemoOptions& options, const DemoProgress& progress)
{
    std::mt19937_64 random(options.seed);
    const int current = options.currentPeriod;
    std::string user = options.user;
    if (user.empty()) {
        const char* fromEnvironment = std::getenv("USER");
        user = fromEnvironment && *fromEnvironment ? fromEnvironment : "demo";
    }

    std::vector<Scope> scopes;
    std::vector<std::string> sigles(kOrganisations + 1);
    store.transaction([&] {
        createSchema(store);

        for (int i = 0; i < kEntities; ++i) {
            const auto code = entityCode(i);
            const std::string name = std::string(kEntityKinds[static_cast<std::size_t>(i) % kEntityKinds.size()]) + " "
                + kPlaces[static_cast<std::size_t>(i) % kPlaces.size()];
            store.write(FileNames::ASSOCIATION, code,
                name + AM + std::to_string(1 + i * 3) + " RUE DE LA RÉPUBLIQUE" + AM + "BP " + std::to_string(100 + i) + AM
                    + std::to_string(10000 + i * 1111) + " " + kDepartments[static_cast<std::size_t>(i) % kDepartments.size()]);
            int sequence = 1;
            for (const char letter : lettersOf(i)) {
                std::string record(11, AM);
                record += letter;
                store.write(FileNames::ACTIVITES, code + letter + code3(sequence++).substr(1), record);
                if (letter != 'X') {
                    scopes.push_back({code, letter});
                }
            }
        }
        for (int o = 1; o <= kOrganisations; ++o) {
            const auto name = organisationName(o, sigles[static_cast<std::size_t>(o)]);
            if (std::find(kMissingOrganisations.begin(), kMissingOrganisations.end(), o) != kMissingOrganisations.end()) {
                continue;
            }
            store.write(FileNames::ORGPRISECHARGE, code3(o),
                name + AM + sigles[static_cast<std::size_t>(o)] + AM + std::to_string(o) + " AVENUE DE LA GARE" + AM
                    + "CS " + std::to_string(70000 + o) + AM + "CEDEX");
        }
        store.write(FileNames::PERIODESPAIE, Keys::PeriodeCourante, std::to_string(current));
        for (const auto& who : {user, std::string("ADMIN"), std::string("STAGIAIRE")}) {
            store.write(FileNames::DROITS, who + "*CALVARINE", who == "STAGIAIRE" ? "1" : "2");
        }
    });

    // Plan every statement first, so that they are written in key order: the
    // tables then grow at their ends, which keeps a large demo fast.
    std::uint16_t bigScope = 0;
    for (std::size_t s = 0; s < scopes.size(); ++s) {
        if (scopes[s].entity == kBigScopeEntity && scopes[s].letter == 'P') {
            bigScope = static_cast<std::uint16_t>(s);
        }
    }
    std::vector<Planned> plan;
    plan.reserve(options.statements + options.bigScope);
    for (std::size_t n = 0; n < options.statements; ++n) {
        Planned planned{static_cast<std::uint16_t>(below(random, scopes.size())),
            static_cast<std::uint16_t>(1 + below(random, kOrganisations)), static_cast<std::uint16_t>(below(random, 120))};
        // The big scope holds exactly the statements asked for it.
        if (options.bigScope > 0 && planned.scope == bigScope && planned.period == 0) {
            planned.period = 1;
        }
        plan.push_back(planned);
    }
    for (std::size_t n = 0; n < options.bigScope; ++n) {
        plan.push_back({bigScope, static_cast<std::uint16_t>(1 + below(random, kOrganisations)), 0});
    }
    std::sort(plan.begin(), plan.end(), [&](const Planned& a, const Planned& b) {
        const auto& x = scopes[a.scope];
        const auto& y = scopes[b.scope];
        if (x.entity != y.entity) {
            return x.entity < y.entity;
        }
        if (x.letter != y.letter) {
            return x.letter < y.letter;
        }
        if (a.organisation != b.organisation) {
            return a.organisation < b.organisation;
        }
        return a.period > b.period; // older periods first: key order
    });

    // Large batches, without a sync per commit: a crash keeps every batch
    // committed before it.
    store.bulkLoad([&] {
        std::size_t done = 0;
        while (done < plan.size()) {
            const std::size_t end = std::min(plan.size(), done + kBatch);
            store.transaction([&] {
                for (std::size_t n = done; n < end; ++n) {
                    const auto& planned = plan[n];
                    const auto& scope = scopes[planned.scope];
                    const int period = periodAt(current, planned.period);
                    // Invoice numbers: ten characters, a few shorter ones padded with blanks.
                    const std::string key = archive::makeKey({scope.entity, std::string(1, scope.letter), code3(planned.organisation),
                        std::to_string(period), n % 97 == 5 ? "A" + std::to_string(n) : std::to_string(1000000000 + n)});
                    store.write(FileNames::ARCHIVEBORDCAISSE, key,
                        statementRecord(random, period, sigles[planned.organisation], archive::invoiceOf(key)));
                }
            });
            done = end;
            if (progress) {
                progress(done, plan.size());
            }
        }
    });
}

} // namespace store

// The query compiler against a naive model: the same random writes go to the
// store and to a map, and every random sentence must give the same keys.

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <random>

#include "Sentence.h"
#include "StoreTestSupport.h"

namespace store::testing {
namespace {

struct Name {
    const char* name;
    int attribute;
    bool right;
};
constexpr Name kNames[] = {{"Un", 1, false}, {"Deux", 2, false}, {"Trois", 3, true}, {"Cle", 0, false}, {"CleR", 0, true}};
const std::vector<std::string> kValues = {"", "a", "ab", "abc", "b", "ba", "9", "10", "-1", "1.5", "é", "É"};

class Model {
public:
    std::map<std::string, std::string> records;

    std::string select(const sentence::Parsed& parsed) const
    {
        std::vector<std::string> keys;
        for (const auto& [key, record] : records) {
            bool all = true;
            for (const auto& condition : parsed.conditions) {
                const int attribute = attributeOf(condition.selector);
                bool any = false;
                for (const auto& alt : condition.alternatives) {
                    any = any || (attribute == 0 ? (alt.prefix ? key.starts_with(alt.value) : key == alt.value)
                                                 : sentence::anyValueMatches(sentence::attributeOf(record, attribute), alt.value, alt.prefix));
                }
                all = all && any;
            }
            if (all) {
                keys.push_back(key);
            }
        }
        std::stable_sort(keys.begin(), keys.end(), [&](const std::string& a, const std::string& b) {
            for (const auto& sort : parsed.sorts) {
                const int attribute = attributeOf(sort);
                const std::string x = attribute == 0 ? a : std::string(sentence::attributeOf(records.at(a), attribute));
                const std::string y = attribute == 0 ? b : std::string(sentence::attributeOf(records.at(b), attribute));
                const int order = isRight(sort) ? sentence::compareRight(x, y) : x.compare(y);
                if (order != 0) {
                    return order < 0;
                }
            }
            return false; // keys are already in order
        });
        std::string out;
        for (const auto& key : keys) {
            out += (out.empty() ? "" : "\xFE") + key;
        }
        return out;
    }

private:
    static const Name* named(const sentence::Selector& selector)
    {
        for (const auto& name : kNames) {
            if (selector.name == name.name) {
                return &name;
            }
        }
        return nullptr;
    }
    static int attributeOf(const sentence::Selector& selector)
    {
        return selector.attribute >= 0 ? selector.attribute : named(selector)->attribute;
    }
    static bool isRight(const sentence::Selector& selector) { return selector.attribute < 0 && named(selector)->right; }
};

class Randomized : public StoreTest {
protected:
    std::mt19937 m_random{static_cast<unsigned>(::testing::UnitTest::GetInstance()->random_seed())};

    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(m_random); }
    const std::string& value() { return kValues[static_cast<std::size_t>(pick(static_cast<int>(kValues.size())))]; }

    std::string randomKey()
    {
        static const char* prefixes[] = {"A", "AB", "B", "Ba", "é"};
        return std::string(prefixes[pick(5)]) + std::to_string(pick(30));
    }

    std::string randomRecord()
    {
        std::string record;
        const int attributes = pick(5);
        for (int a = 0; a < attributes; ++a) {
            if (a) {
                record += '\xFE';
            }
            const int values = 1 + pick(3);
            for (int v = 0; v < values; ++v) {
                record += (v ? "\xFD" : "") + value();
            }
        }
        return record;
    }

    std::string selector()
    {
        const int choice = pick(9);
        if (choice < 5) {
            return kNames[choice].name;
        }
        return std::to_string(choice - 5); // 0 to 3; 4 has no name
    }

    std::string randomSentence()
    {
        std::string text = "SSELECT F";
        const int conditions = pick(4);
        for (int c = 0; c < conditions; ++c) {
            text += std::string(c ? " AND" : "") + " AVEC " + selector();
            const int alternatives = 1 + pick(3);
            for (int a = 0; a < alternatives; ++a) {
                std::string v = pick(3) == 0 ? randomKey() : value();
                if (pick(3) == 0) {
                    v = v.substr(0, static_cast<std::size_t>(pick(static_cast<int>(v.size()) + 1))) + "]";
                }
                text += std::string(a ? " OR" : "") + " = \"" + v + "\"";
            }
        }
        const int sorts = pick(3);
        for (int s = 0; s < sorts; ++s) {
            text += " PAR " + selector();
        }
        return text;
    }
};

TEST_P(Randomized, CompilerAgreesWithNaiveModel)
{
    for (const auto& name : kNames) {
        db().defineName("F", name.name, name.attribute, name.right ? Justify::Right : Justify::Left);
    }
    Model model;
    for (int step = 0; step < 400; ++step) {
        if (pick(4) == 0 && !model.records.empty()) {
            auto at = model.records.begin();
            std::advance(at, pick(static_cast<int>(model.records.size())));
            const std::string key = at->first;
            model.records.erase(at);
            db().remove("F", key);
        } else {
            const auto key = randomKey();
            const auto record = randomRecord();
            model.records[key] = record;
            db().write("F", key, record);
        }
        for (int q = 0; q < 3; ++q) {
            const auto text = randomSentence();
            ASSERT_EQ(marks(db().select(text).text()), marks(model.select(sentence::parse(text)))) << "step " << step << ": " << text;
        }
    }
}

CALVARINE_BOTH_ENGINES(Randomized);

} // namespace
} // namespace store::testing

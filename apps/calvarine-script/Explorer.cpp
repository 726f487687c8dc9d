#include "Explorer.h"

// The differential explorer. A story is a scenario without expectations: a
// fixture, init, then operator steps drawn at random from every gesture of the
// scenario language, over the controls, entries and texts that the screen
// offers at that point. It is played on the headless host first, its next
// step drawn from the state the last one left, and every reading recorded
// after every line; then through the real window, the same lines, each reading
// compared with the headless one as it goes. The two passes cannot run side by
// side in one process: the control's module state is the process's own.
//
// A divergence is shortened (steps whose removal keeps a divergence are left
// out) and printed as a scenario whose expectations hold the headless values:
// it passes headless and fails through the widgets until the two agree.

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Session.h"
#include "Text.h"

namespace script {

namespace {

using Reading = Session::Reading;
using Readings = std::vector<Reading>;

// splitmix64: the same stories from the same seed on every platform.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}
    std::uint64_t next()
    {
        std::uint64_t z = (m_state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // 0 .. n-1; n > 0.
    int below(int n) { return static_cast<int>(next() % static_cast<std::uint64_t>(n)); }
    bool chance(int percent) { return below(100) < percent; }
    template <class T, std::size_t N>
    const T& among(const std::array<T, N>& items) { return items[static_cast<std::size_t>(below(static_cast<int>(N)))]; }

private:
    std::uint64_t m_state;
};

// large.jsonl is demo data (calvarine-db demo --statements 200 --big-scope 120
// --seed 3, exported): lists longer than the list boxes show.
constexpr std::array<const char*, 5> kFixtures{"data/statements.jsonl", "data/statements.jsonl", "data/one_entity.jsonl", "data/empty.jsonl",
    "data/large.jsonl"};
constexpr std::array<const char*, 5> kTextControls{"Txt_Entite", "Txt_Entite", "Txt_Tri", "Cbo_Entite", "Cbo_Tri"};
constexpr std::array<const char*, 3> kCombos{"Cbo_Entite", "Cbo_Periode", "Cbo_Tri"};
constexpr std::array<const char*, 4> kLists{"Lst_OrgaPos", "Lst_OrgaSel", "Lst_OrgaPos", "Lst_OrgaSel"};
constexpr std::array<const char*, 12> kClickables{"Cmd_PasseGauche", "Cmd_PasseDroit", "Cmd_Tous", "Cmd_Imprimer", "Opt_Inter",
    "Opt_Mandat", "Opt_Prest", "Opt_Papier", "Opt_Fichier", "Opt_Org", "Opt_NumFact", "Opt_Tous"};
constexpr std::array<const char*, 12> kPressables{"UserControl", "Cdr_Activite", "Cdr_Select", "Cdr_Edition", "Lst_OrgaPos",
    "Lst_OrgaSel", "Etq_Entite", "Etq_OrgaPos", "Cmd_Tous", "Opt_Prest", "Txt_Entite", "Cbo_Periode"};
constexpr std::array<const char*, 16> kFocusable{"Cbo_Entite", "Txt_Entite", "Cbo_Periode", "Opt_Inter", "Opt_Mandat",
    "Opt_Prest", "Lst_OrgaPos", "Lst_OrgaSel", "Cmd_Tous", "Cmd_PasseDroit", "Cmd_Imprimer", "Opt_Papier", "Opt_Org",
    "Opt_Tous", "Txt_Tri", "Cbo_Tri"};
// Texts an operator would try: codes of the fixtures' entities and
// organisations, whole or short, unknown ones, names' beginnings, letters a
// code box refuses, an accented letter.
constexpr std::array<const char*, 26> kTexts{"001", "1", "01", "002", "003", "010", "007", "004", "999", "2", "45", "045", "012",
    "101", "077", "12", "4", "0", "a", "x", "AIDE", "ASS", "S", "MUT", "\xC3\xA9", "1a"};
constexpr std::array<int, 12> kKeys{8, 8, 13, 13, 9, 27, 48, 49, 52, 97, 65, 233};

// Draws the next step from the state the story has reached.
std::string drawStep(Random& random, ScreenModel& screen)
{
    const auto count = [&](const char* name) { return screen.get(name).listCount(); };
    for (;;) {
        const int roll = random.below(100);
        if (roll < 18) {
            return std::string("type ") + random.among(kTextControls) + ' ' + quote(random.among(kTexts));
        }
        if (roll < 28) {
            return std::string("key ") + random.among(kTextControls) + ' ' + std::to_string(random.among(kKeys));
        }
        if (roll < 33) {
            return std::string("selectall ") + random.among(kTextControls);
        }
        if (roll < 36) {
            return std::string("paste ") + random.among(kTextControls) + ' ' + quote(random.among(kTexts));
        }
        if (roll < 45) {
            const char* combo = random.among(kCombos);
            if (count(combo) == 0) {
                continue;
            }
            return std::string("pick ") + combo + ' ' + std::to_string(random.below(count(combo)));
        }
        if (roll < 58) {
            // Leaving the screen ends the story's use: seldom.
            return std::string("click ") + (random.chance(2) ? "Cmd_Sortir" : random.among(kClickables));
        }
        if (roll < 70) {
            const char* list = random.among(kLists);
            if (count(list) == 0) {
                continue;
            }
            return std::string(random.chance(70) ? "click " : "dblclick ") + list + ' ' + std::to_string(random.below(count(list)));
        }
        if (roll < 80) {
            const char* source = random.among(kLists);
            const char* target = random.chance(10) ? "Cmd_Tous" : random.among(kLists);
            if (random.chance(50) || count(source) == 0) {
                return std::string("drag ") + source + ' ' + target;
            }
            return std::string("drag ") + source + ' ' + std::to_string(random.below(count(source))) + ' ' + target;
        }
        if (roll < 86) {
            constexpr std::array<int, 4> buttons{1, 1, 2, 4};
            return std::string("mousedown ") + random.among(kPressables) + ' ' + std::to_string(random.among(buttons));
        }
        if (roll < 94) {
            return std::string("focus ") + random.among(kFocusable);
        }
        if (roll < 96) {
            return "blur";
        }
        return random.chance(80) ? "menu Mnu_Sommaire" : "menu Mnu_Aide";
    }
}

std::vector<std::string> drawPrelude(Random& random)
{
    std::vector<std::string> lines{std::string("fixture ") + random.among(kFixtures)};
    if (random.chance(15)) {
        constexpr std::array<int, 3> levels{0, 1, 3};
        lines.push_back("rights " + std::to_string(random.among(levels)));
    }
    if (random.chance(10)) {
        lines.emplace_back("server none");
    }
    lines.emplace_back("init");
    if (random.chance(60)) {
        // Most operators begin with an entity.
        lines.push_back(std::string("type Txt_Entite ") + quote(random.chance(70) ? "001" : "002"));
    }
    return lines;
}

// One pass over a story: the readings after each line.
struct Pass {
    std::vector<Readings> readings;
};

class Explorer {
public:
    Explorer(const ExploreOptions& options, std::ostream& out) : m_options(options), m_out(out) {}

    int run();

private:
    struct Divergence {
        std::size_t line = 0; // index in the story's lines
        std::vector<std::pair<std::string, std::pair<std::string, std::string>>> readings; // subject: headless, window
    };

    // Plays the lines; with a random source, then draws steps more, each from
    // the state the last one left, and adds them to lines.
    Pass play(std::vector<std::string>& lines, bool widgets, Random* draw = nullptr, int steps = 0);
    std::optional<Divergence> compare(std::vector<std::string> lines);
    static std::optional<Divergence> firstDivergence(const Pass& headless, const Pass& window);
    std::vector<std::string> shorten(std::vector<std::string> lines, std::size_t prelude, Divergence& found);
    static std::string scenario(const std::vector<std::string>& lines, const Divergence& found, const std::string& origin);

    const ExploreOptions& m_options;
    std::ostream& m_out;
    std::uint64_t m_compared = 0;
    std::uint64_t m_lines = 0;
};

Pass Explorer::play(std::vector<std::string>& lines, bool widgets, Random* draw, int steps)
{
    Options options;
    options.widgets = widgets;
    std::ostringstream failures;
    Tally tally;
    Pass pass;
    Session session(m_options.folder / "explored.scn", options, failures);
    const auto playLine = [&](const std::string& line, std::size_t number) {
        const bool goesOn = session.play(line, number, tally);
        Readings readings = session.readEverything();
        // A failed expectation of the line itself (an entry that is not there)
        // or a scenario that cannot go on is a reading too.
        readings.push_back(Reading{"output", failures.str()});
        failures.str({});
        pass.readings.push_back(std::move(readings));
        return goesOn;
    };
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (!playLine(lines[i], i + 1)) {
            return pass;
        }
    }
    if (draw) {
        for (int step = 0; step < steps; ++step) {
            lines.push_back(drawStep(*draw, session.screen()));
            if (!playLine(lines.back(), lines.size())) {
                break;
            }
        }
    }
    return pass;
}

std::optional<Explorer::Divergence> Explorer::firstDivergence(const Pass& headless, const Pass& window)
{
    const std::size_t lines = std::max(headless.readings.size(), window.readings.size());
    for (std::size_t i = 0; i < lines; ++i) {
        static const Readings kNone;
        const Readings& a = i < headless.readings.size() ? headless.readings[i] : kNone;
        const Readings& b = i < window.readings.size() ? window.readings[i] : kNone;
        if (a == b) {
            continue;
        }
        std::map<std::string, std::pair<std::string, std::string>> both;
        for (const Reading& r : a) {
            both[r.subject].first = r.value;
        }
        for (const Reading& r : b) {
            both[r.subject].second = r.value;
        }
        Divergence found{i, {}};
        for (auto& [subject, values] : both) {
            if (values.first != values.second) {
                found.readings.emplace_back(subject, values);
            }
        }
        return found;
    }
    return std::nullopt;
}

std::optional<Explorer::Divergence> Explorer::compare(std::vector<std::string> lines)
{
    const Pass headless = play(lines, false);
    const Pass window = play(lines, true);
    return firstDivergence(headless, window);
}

std::vector<std::string> Explorer::shorten(std::vector<std::string> lines, std::size_t prelude, Divergence& found)
{
    lines.resize(found.line + 1);
    // Leave out each step in turn, the last one first, while a divergence
    // remains; a bounded number of tries keeps a long story's report quick.
    int tries = 0;
    for (std::size_t i = lines.size() - 1; i-- > prelude && tries < 200;) {
        std::vector<std::string> shorter = lines;
        shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(i));
        ++tries;
        if (auto still = compare(shorter)) {
            shorter.resize(still->line + 1);
            lines = std::move(shorter);
            found = *still;
            i = std::min(i, lines.size() - 1);
        }
    }
    return lines;
}

std::string Explorer::scenario(const std::vector<std::string>& lines, const Divergence& found, const std::string& origin)
{
    std::ostringstream s;
    s << "# " << origin << ": the window differs from the headless host after the last step.\n";
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
        s << lines[i] << '\n';
    }
    s << "clear\n" << lines.back() << '\n';
    for (const auto& [subject, values] : found.readings) {
        const std::string& expected = values.first;
        if (subject == "output") {
            s << "# the window's pass reported: " << values.second << '\n';
        } else if (subject == "events") {
            LineReader reader(expected);
            const Value events = reader.value();
            for (const Value& event : events.items) {
                s << "expect event " << quote(event.text) << '\n';
            }
            s << "expect noevent\n";
        } else if (subject.starts_with("record ")) {
            s << "expect " << (expected.empty() ? "no" + subject : subject + " = " + expected) << '\n';
        } else {
            s << "expect " << subject << " = " << expected << '\n';
        }
    }
    return s.str();
}

int Explorer::run()
{
    int divergences = 0;
    for (int story = 0; story < m_options.stories; ++story) {
        const std::uint64_t storySeed = m_options.seed + static_cast<std::uint64_t>(story);
        Random random(storySeed * 0x2545F4914F6CDD1DULL + 1);
        std::vector<std::string> lines = drawPrelude(random);
        const std::size_t prelude = lines.size();
        const Pass headless = play(lines, false, &random, m_options.steps);
        const Pass window = play(lines, true);
        std::optional<Divergence> found = firstDivergence(headless, window);
        for (std::size_t i = 0; i < window.readings.size() && (!found || i < found->line); ++i) {
            for (const Reading& r : window.readings[i]) {
                m_compared += r.weight;
            }
        }
        m_lines += found ? found->line : window.readings.size();
        if (!found) {
            continue;
        }
        ++divergences;
        m_out << "divergence: seed " << storySeed << " (--seed " << storySeed << " --stories 1), line " << found->line + 1
              << ": " << lines[found->line] << '\n';
        for (const auto& [subject, values] : found->readings) {
            m_out << "  " << subject << ": headless " << values.first << ", window " << values.second << '\n';
        }
        std::vector<std::string> shortest = shorten(lines, prelude, *found);
        const std::string origin = "calvarine-script --explore, seed " + std::to_string(storySeed);
        const std::string text = scenario(shortest, *found, origin);
        m_out << "  shortest scenario (" << shortest.size() << " lines):\n" << text;
        if (m_options.keep) {
            std::filesystem::create_directories(*m_options.keep);
            const auto path = *m_options.keep / ("explored-" + std::to_string(storySeed) + ".scn");
            // The fixtures as seen from where the scenario is kept.
            std::vector<std::string> kept = shortest;
            for (std::string& line : kept) {
                if (line.starts_with("fixture ")) {
                    line = "fixture " + std::filesystem::relative(m_options.folder / line.substr(8), *m_options.keep).generic_string();
                }
            }
            std::ofstream(path) << scenario(kept, *found, origin);
            m_out << "  written to " << path.string() << '\n';
        }
    }
    m_out << m_options.stories << " stories, " << m_lines << " lines, " << m_compared << " readings compared through the widgets, "
          << divergences << " divergences\n";
    return divergences == 0 ? 0 : 1;
}

} // namespace

int explore(const ExploreOptions& options, std::ostream& out)
{
    return Explorer(options, out).run();
}

} // namespace script

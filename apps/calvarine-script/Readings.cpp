#include "Session.h"

#include <algorithm>

#include "Text.h"

// Everything a scenario can expect, read at once: what the explorer compares
// between the headless pass and the pass through the widgets after each step.
// Each reading goes through the same gestures as the expectation of that
// subject would, so a reading that differs is an expectation that would fail.

namespace script {

namespace {

bool hasText(ControlKind kind)
{
    return kind == ControlKind::TextBox || kind == ControlKind::ComboBox;
}

bool hasEntries(ControlKind kind)
{
    return kind == ControlKind::ListBox || kind == ControlKind::ComboBox;
}

} // namespace

std::vector<Session::Reading> Session::readEverything()
{
    std::vector<Reading> out;
    const Gestures& seen = *m_gestures;
    auto add = [&](std::string subject, const Value& value, std::size_t weight = 1) {
        out.push_back(Reading{std::move(subject), value.format(), std::max<std::size_t>(1, weight)});
    };
    auto number = [](std::int64_t n) { return Value::of(n); };

    ScreenModel& screen = m_control->Controls();
    for (std::int16_t i = 0; i < screen.count(); ++i) {
        const Control& c = screen.at(i);
        const std::string& name = c.name();
        if (c.kind() == ControlKind::Sibling) {
            continue;
        }
        add(name + ".Enabled", Value::of(seen.enabled(c)));
        if (c.kind() == ControlKind::MenuEntry) {
            continue;
        }
        add(name + ".Visible", Value::of(seen.visible(c)));
        if (c.kind() == ControlKind::OptionButton) {
            add(name + ".Value", Value::of(seen.value(c)));
        }
        if (hasText(c.kind())) {
            add(name + ".Text", Value::of(seen.text(c)));
        }
        if (c.kind() == ControlKind::TextBox) {
            add(name + ".MaxLength", number(c.maxLength()));
        }
        if (!hasEntries(c.kind())) {
            continue;
        }
        const std::int16_t count = seen.listCount(c);
        add(name + ".ListCount", number(count));
        add(name + ".ListIndex", number(seen.listIndex(c)));
        add(name + ".NewIndex", number(c.newIndex()));
        std::vector<Value> items;
        std::vector<Value> selected;
        std::vector<Value> data;
        for (std::int16_t e = 0; e < count; ++e) {
            items.push_back(Value::of(seen.item(c, e)));
            if (c.kind() == ControlKind::ListBox && seen.selected(c, e)) {
                selected.push_back(number(e));
            }
        }
        for (std::int16_t e = 0; e < c.listCount(); ++e) {
            data.push_back(number(c.itemData(e)));
        }
        add(name + ".List", Value::list(std::move(items)), static_cast<std::size_t>(count));
        if (c.kind() == ControlKind::ListBox) {
            add(name + ".Selected", Value::list(std::move(selected)), static_cast<std::size_t>(count));
        }
        add(name + ".ItemData", Value::list(std::move(data)), static_cast<std::size_t>(c.listCount()));
    }
    add("UserControl.Enabled", Value::of(seen.userControlEnabled()));
    add("Screen.MousePointer", number(seen.mousePointer()));
    const Control* focus = seen.focus();
    add("focus", Value::word(focus ? focus->name() : "none"));
    add("W_Sortir", Value::of(m_control->W_Sortir));
    const std::pair<const char*, const std::shared_ptr<DbaDynArray>*> members[] = {
        {"Tab_Entite", &m_control->tabEntite()},
        {"Tab_EntiteRecherche", &m_control->tabEntiteRecherche()},
        {"Tab_Cles", &m_control->tabCles()},
        {"Tab_Selection", &m_control->tabSelection()},
    };
    for (const auto& [subject, member] : members) {
        add(subject, *member ? Value::of(showMarks((*member)->text())) : Value::word("nothing"));
    }

    // The events of the step, in order; the next reading sees only newer ones.
    std::vector<Value> events;
    while (const std::optional<std::string> event = m_events->take()) {
        events.push_back(Value::of(*event));
    }
    const std::size_t eventCount = events.size();
    add("events", Value::list(std::move(events)), eventCount);

    // The working records the control handed to the server command.
    try {
        m_store->forEachStored("TEMPO", [&](std::string_view key, std::string_view record) {
            // Stored under the key with the workstation session's mark (after
            // the last '@'), which differs from one pass to the other: read as
            // the control names it.
            if (const auto mark = key.rfind('@'); mark != std::string_view::npos) {
                key = key.substr(0, mark);
            }
            add("record TEMPO " + quote(key), Value::of(showMarks(record)));
        });
    } catch (const DbaError& e) {
        if (!e.isNoFile()) {
            throw;
        }
    }
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_fusion)) {
        if (entry.path().filename() != kFusionLedger) {
            names.push_back(entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    std::vector<Value> files;
    for (auto& n : names) {
        files.push_back(Value::of(std::move(n)));
    }
    add("fusion", Value::list(std::move(files)), names.size());
    return out;
}

} // namespace script

#include "Session.h"

#include <algorithm>

#include "Text.h"

// The expectations: each reads the screen, the database or the events, and
// reports "expected ..., got ..." in the scenario's own notation.

namespace script {

void Session::clear(LineReader& r)
{
    r.expectEnd();
    m_events->clear();
}

void Session::expect(LineReader& r)
{
    const std::string subject = r.word();
    if (subject == "event" || subject == "noevent") {
        if (subject == "event") {
            expectEvent(r);
            return;
        }
        r.expectEnd();
        const bool none = m_events->empty();
        check(none, "noevent", none ? "" : "event " + quote(m_events->pending().front()));
        return;
    }
    if (subject == "record" || subject == "norecord") {
        const std::string file = r.word();
        const std::string key = r.string();
        std::optional<std::string> expected;
        if (subject == "record") {
            r.keyword("=");
            expected = r.string();
        }
        r.expectEnd();
        const std::optional<std::string> record = m_store->read(file, key);
        const std::optional<std::string> actual = record ? std::optional(showMarks(*record)) : std::nullopt;
        const std::string what = subject + " " + file + " " + quote(key);
        check(actual == expected, expected ? what + " = " + quote(*expected) : what,
            actual ? "record " + quote(*actual) : "norecord");
        return;
    }
    r.keyword("=");
    if (subject == "fusion") {
        const Value expected = r.value();
        r.expectEnd();
        if (!expected.isListOf(Value::Kind::String)) {
            throw BadCommand("fusion is a list of names");
        }
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_fusion)) {
            if (entry.path().filename() != kFusionLedger) {
                names.push_back(entry.path().filename().string());
            }
        }
        std::sort(names.begin(), names.end());
        std::vector<Value> items;
        for (auto& n : names) {
            items.push_back(Value::of(std::move(n)));
        }
        const Value actual = Value::list(std::move(items));
        check(actual == expected, "fusion = " + expected.format(), actual.format());
        return;
    }
    if (subject == "focus") {
        const std::string name = r.word();
        r.expectEnd();
        if (name != "none") {
            control(name);
        }
        const Control* focus = m_gestures->focus();
        const std::string actual = focus ? focus->name() : "none";
        check(actual == name, "focus = " + name, actual);
        return;
    }
    if (subject == "W_Sortir") {
        const bool expected = r.boolean();
        r.expectEnd();
        check(m_control->W_Sortir == expected, "W_Sortir = " + Value::of(expected).format(),
            Value::of(m_control->W_Sortir).format());
        return;
    }
    if (subject.starts_with("Tab_")) {
        const Value expected = r.value();
        r.expectEnd();
        if (expected.kind != Value::Kind::String && !(expected.kind == Value::Kind::Word && expected.text == "nothing")) {
            throw BadCommand("an array is a string or nothing");
        }
        const std::shared_ptr<DbaDynArray>* member = subject == "Tab_Entite" ? &m_control->tabEntite()
            : subject == "Tab_EntiteRecherche" ? &m_control->tabEntiteRecherche()
            : subject == "Tab_Cles"            ? &m_control->tabCles()
            : subject == "Tab_Selection"       ? &m_control->tabSelection()
                                               : nullptr;
        if (!member) {
            throw BadCommand("no member " + subject);
        }
        const Value actual = *member ? Value::of(showMarks((*member)->text())) : Value::word("nothing");
        check(actual == expected, subject + " = " + expected.format(), actual.format());
        return;
    }
    expectProperty(subject, r);
}

void Session::expectEvent(LineReader& r)
{
    const std::string expected = r.string();
    r.expectEnd();
    const std::optional<std::string> actual = m_events->take();
    check(actual && EventLog::matches(expected, *actual), "event " + quote(expected),
        actual ? "event " + quote(*actual) : "noevent");
}

void Session::expectProperty(const std::string& subject, LineReader& r)
{
    const Value expected = r.value();
    r.expectEnd();
    const auto dot = subject.find('.');
    if (dot == std::string::npos) {
        throw BadCommand("CTRL.PROP expected");
    }
    const std::string name = subject.substr(0, dot);
    std::string prop = subject.substr(dot + 1);

    auto need = [&](Value::Kind kind) {
        if (expected.kind != kind) {
            throw BadCommand(prop + " takes " + (kind == Value::Kind::Boolean ? "True or False" : kind == Value::Kind::Integer ? "an integer" : "a string"));
        }
    };
    auto needList = [&](Value::Kind item) {
        if (!expected.isListOf(item)) {
            throw BadCommand(prop + " takes a list");
        }
    };
    auto report = [&](const Value& actual) { check(actual == expected, subject + " = " + expected.format(), actual.format()); };

    if (name == "Screen") {
        if (prop != "MousePointer") {
            throw BadCommand("Screen.MousePointer only");
        }
        need(Value::Kind::Integer);
        report(Value::of(std::int64_t{m_gestures->mousePointer()}));
        return;
    }
    const Control& c = control(name, true);
    if (c.kind() == ControlKind::UserControl && prop != "Enabled") {
        throw BadCommand("UserControl.Enabled only");
    }

    // An indexed member: List(I), Selected(I), ItemData(I).
    std::optional<std::int16_t> index;
    if (const auto open = prop.find('('); open != std::string::npos) {
        if (prop.back() != ')') {
            throw BadCommand("bad index in " + prop);
        }
        LineReader inner(std::string_view(prop).substr(open + 1, prop.size() - open - 2));
        index = int16(inner.integer());
        inner.expectEnd();
        prop.resize(open);
        if (prop != "List" && prop != "Selected" && prop != "ItemData") {
            throw BadCommand(prop + " takes no index");
        }
    }

    // What the operator sees is read through the pass's gestures (the widgets
    // in the Qt pass); NewIndex, MaxLength and ItemData have no widget form.
    const Gestures& seen = *m_gestures;
    if (prop == "Text") {
        need(Value::Kind::String);
        report(Value::of(seen.text(c)));
    } else if (prop == "Enabled" && c.kind() == ControlKind::UserControl) {
        need(Value::Kind::Boolean);
        report(Value::of(seen.userControlEnabled()));
    } else if (prop == "Enabled" || prop == "Visible" || prop == "Value") {
        need(Value::Kind::Boolean);
        report(Value::of(prop == "Enabled" ? seen.enabled(c) : prop == "Visible" ? seen.visible(c) : seen.value(c)));
    } else if (prop == "ListIndex" || prop == "ListCount" || prop == "NewIndex" || prop == "MaxLength") {
        need(Value::Kind::Integer);
        const std::int16_t n = prop == "ListIndex" ? seen.listIndex(c)
            : prop == "ListCount"                 ? seen.listCount(c)
            : prop == "NewIndex"                  ? c.newIndex()
                                                  : c.maxLength();
        report(Value::of(std::int64_t{n}));
    } else if (prop == "List" && index) {
        need(Value::Kind::String);
        report(Value::of(seen.item(c, *index)));
    } else if (prop == "Selected" && index) {
        need(Value::Kind::Boolean);
        report(Value::of(seen.selected(c, *index)));
    } else if (prop == "ItemData" && index) {
        need(Value::Kind::Integer);
        report(Value::of(std::int64_t{c.itemData(*index)}));
    } else if (prop == "List" || prop == "Selected" || prop == "ItemData") {
        needList(prop == "List" ? Value::Kind::String : Value::Kind::Integer);
        std::vector<Value> items;
        const std::int16_t count = prop == "ItemData" ? c.listCount() : seen.listCount(c);
        for (std::int16_t i = 0; i < count; ++i) {
            if (prop == "List") {
                items.push_back(Value::of(seen.item(c, i)));
            } else if (prop == "ItemData") {
                items.push_back(Value::of(std::int64_t{c.itemData(i)}));
            } else if (seen.selected(c, i)) {
                items.push_back(Value::of(std::int64_t{i}));
            }
        }
        report(Value::list(std::move(items)));
    } else {
        throw BadCommand("no property " + prop);
    }
}

} // namespace script

#include "Session.h"

#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <system_error>

#include "Rights.h"
#include "ServerCommands.h"
#include "Text.h"
#include "shell/Variable.h"

namespace script {

namespace {

// Each file plays as if in a fresh process: module Variable starts empty.
void resetModuleVariable()
{
    using namespace Variable;
    I_Association.reset();
    I_OrgPriseCharge.reset();
    I_PeriodesPaie.reset();
    I_Tempo.reset();
    F_Activites.reset();
    F_Association.reset();
    F_FacturOrg.reset();
    F_OrgPriseCharge.reset();
    F_PeriodesPaie.reset();
    F_Tempo.reset();
    TheDatabase.reset();
    TheClient.reset();
    Variable::AideEnLigne.reset();
    B_Edition = false;
}

bool takesFocus(const Control& control)
{
    switch (control.kind()) {
    case ControlKind::TextBox:
    case ControlKind::ComboBox:
    case ControlKind::ListBox:
    case ControlKind::CommandButton:
    case ControlKind::OptionButton:
        return true;
    default:
        return false;
    }
}

// The code points of a UTF-8 text.
std::vector<char32_t> codePoints(std::string_view s)
{
    std::vector<char32_t> out;
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i++]);
        int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        char32_t cp = extra == 3 ? (c & 0x07) : extra == 2 ? (c & 0x0F) : extra == 1 ? (c & 0x1F) : c;
        for (; extra > 0 && i < s.size(); --extra) {
            cp = (cp << 6) | (static_cast<unsigned char>(s[i++]) & 0x3F);
        }
        out.push_back(cp);
    }
    return out;
}

std::int16_t toInt16(std::int64_t n)
{
    if (n < INT16_MIN || n > INT16_MAX) {
        throw BadCommand("integer out of range");
    }
    return static_cast<std::int16_t>(n);
}

using Method = void (Ctr_Calvarine::*)();

const std::unordered_map<std::string_view, Method>& publicMethods()
{
    static const std::unordered_map<std::string_view, Method> methods{
        {"Init", &Ctr_Calvarine::Init},
        {"Masquer_Depart", &Ctr_Calvarine::Masquer_Depart},
        {"Afficher", &Ctr_Calvarine::Afficher},
        {"Remplir_Combo_Entite", &Ctr_Calvarine::Remplir_Combo_Entite},
        {"Vider_Champs", &Ctr_Calvarine::Vider_Champs},
        {"Remplir_Combo_Periode", &Ctr_Calvarine::Remplir_Combo_Periode},
        {"Afficher_Activite", &Ctr_Calvarine::Afficher_Activite},
        {"Requete_Liste", &Ctr_Calvarine::Requete_Liste},
        {"Passage_A_Gauche", &Ctr_Calvarine::Passage_A_Gauche},
        {"Passage_A_Droite", &Ctr_Calvarine::Passage_A_Droite},
        {"PickExe", &Ctr_Calvarine::PickExe},
        {"Remplir_Liste_Filtre", &Ctr_Calvarine::Remplir_Liste_Filtre},
    };
    return methods;
}

} // namespace

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "calvarine-script-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        throw std::system_error(errno, std::generic_category(), "cannot make a temporary directory");
    }
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

Session::Session(std::filesystem::path file, const Options& options, std::ostream& out)
    : m_file(std::move(file))
    , m_out(out)
    , m_events(std::make_shared<EventLog>())
    , m_host(m_events)
{
    resetModuleVariable();
    if (options.fusion) {
        m_fusion = *options.fusion;
        std::filesystem::create_directories(m_fusion);
        // The directory is the host's to empty: each file starts with none of the
        // files an earlier one left.
        for (const auto& entry : std::filesystem::directory_iterator(m_fusion)) {
            std::filesystem::remove_all(entry.path());
        }
    } else {
        m_ownFusion.emplace();
        m_fusion = m_ownFusion->path();
    }
    m_store = store::Store::open(m_dir.path() / "db.sqlite");
    m_store->setFusionDirectory(m_fusion);
    registerServerCommands(*m_store);
    m_client = std::make_shared<DbaClient>("OPERATEUR");
    m_store->setClient(m_client);
    // The control gets the logging decorator from the start, so that logging can
    // be switched on at any line.
    m_database = std::make_shared<LoggingDatabase>(m_store, m_events);

    m_control = std::make_unique<Ctr_Calvarine>(m_host);
    m_control->Controls().get("Ctr_Belmontis1").setObject(std::make_shared<BelmontisRecorder>(m_events));
}

Session::~Session()
{
    m_control.reset();
    resetModuleVariable();
}

const std::unordered_map<std::string_view, Session::Command>& Session::commands()
{
    static const std::unordered_map<std::string_view, Command> table{
        {"fixture", &Session::fixture},
        {"load", &Session::load},
        {"delete", &Session::remove},
        {"rights", &Session::rights},
        {"host", &Session::host},
        {"server", &Session::server},
        {"init", &Session::init},
        {"call", &Session::call},
        {"set", &Session::set},
        {"close", &Session::close},
        {"log", &Session::log},
        {"focus", &Session::focus},
        {"blur", &Session::blur},
        {"type", &Session::type},
        {"key", &Session::key},
        {"selectall", &Session::selectall},
        {"paste", &Session::paste},
        {"pick", &Session::pick},
        {"click", &Session::click},
        {"dblclick", &Session::dblclick},
        {"drag", &Session::drag},
        {"mousedown", &Session::mousedown},
        {"menu", &Session::menu},
        {"expect", &Session::expect},
        {"clear", &Session::clear},
    };
    return table;
}

void Session::run(Tally& tally)
{
    m_tally = &tally;
    std::ifstream in(m_file, std::ios::binary);
    if (!in) {
        m_out << m_file.string() << ": cannot read the file\n";
        tally.broken = true;
        return;
    }
    std::string line;
    while (std::getline(in, line)) {
        ++m_lineNumber;
        m_line = trimmed(line);
        if (m_line.empty() || m_line.front() == '#') {
            continue;
        }
        try {
            LineReader reader(m_line);
            const std::string name = reader.word();
            const auto it = commands().find(name);
            if (it == commands().end()) {
                throw BadCommand("unknown command " + name);
            }
            (this->*(it->second))(reader);
        } catch (const BadCommand& e) {
            m_out << m_file.string() << ':' << m_lineNumber << ": bad command\n";
            std::cerr << m_file.string() << ':' << m_lineNumber << ": " << e.what() << '\n';
            tally.broken = true;
            return;
        } catch (const std::exception& e) {
            // The scenario itself could not go on: a fixture that cannot be read,
            // a database that fails outside the control.
            m_out << m_file.string() << ':' << m_lineNumber << ": " << e.what() << '\n';
            tally.broken = true;
            return;
        }
    }
}

void Session::check(bool ok, const std::string& expected, const std::string& got)
{
    if (ok) {
        ++m_tally->passed;
        return;
    }
    ++m_tally->failed;
    m_out << m_file.string() << ':' << m_lineNumber << ": expected " << expected << ", got " << got << '\n';
}

// ---- Data -------------------------------------------------------------------

void Session::fixture(LineReader& r)
{
    const std::string word = r.peek() == '"' ? r.string() : r.word();
    r.expectEnd();
    const std::filesystem::path path = m_file.parent_path() / word;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read the fixture " + path.string());
    }
    m_store->importJsonLines(in, path.string());
}

void Session::load(LineReader& r)
{
    const std::string_view json = r.rest();
    if (json.empty()) {
        throw BadCommand("load needs a fixture line");
    }
    try {
        m_store->importJsonLine(json, m_file.string() + ":" + std::to_string(m_lineNumber));
    } catch (const DbaError& e) {
        throw BadCommand(e.what());
    }
}

void Session::remove(LineReader& r)
{
    const std::string file = r.word();
    const std::string key = r.string();
    r.expectEnd();
    try {
        m_store->remove(file, key);
    } catch (const DbaError& e) {
        if (!e.isNoFile()) {
            throw;
        }
    }
}

// ---- Host -------------------------------------------------------------------

template <class Call>
void Session::hostCall(const char* name, Call&& call)
{
    try {
        call();
    } catch (const std::exception& e) {
        m_events->push(std::string("ERROR ") + name + ": " + e.what());
    }
    settle();
}

void Session::settle()
{
    if (m_host.takeUnloadRequest()) {
        terminateControl();
    }
}

void Session::terminateControl()
{
    if (m_control->terminated()) {
        return;
    }
    m_control->terminate();
    m_events->push("TERMINATE");
}

void Session::rights(LineReader& r)
{
    const std::int64_t level = r.integer();
    r.expectEnd();
    if (level < INT32_MIN || level > INT32_MAX) {
        throw BadCommand("level out of range");
    }
    m_level = static_cast<std::int32_t>(level);
}

void Session::host(LineReader& r)
{
    r.keyword("without");
    const std::string what = r.word();
    r.expectEnd();
    if (what == "database") {
        m_giveDatabase = false;
    } else if (what == "client") {
        m_giveClient = false;
    } else if (what == "rights") {
        m_giveRights = false;
    } else {
        throw BadCommand("host without database, client or rights");
    }
}

void Session::server(LineReader& r)
{
    const std::string state = r.word();
    r.expectEnd();
    if (state == "none") {
        m_store->unregisterCommand(kArchiveBordCaisseExcel);
    } else if (state == "ready") {
        registerServerCommands(*m_store);
    } else {
        throw BadCommand("server none or ready");
    }
}

void Session::init(LineReader& r)
{
    r.expectEnd();
    if (m_giveDatabase) {
        hostCall("TheDatabase", [&] { m_control->TheDatabase(m_database); });
    }
    if (m_giveClient) {
        hostCall("TheClient", [&] { m_control->TheClient(m_client); });
    }
    if (m_giveRights) {
        std::shared_ptr<SorbelaneDroits> rights = std::make_shared<FixedRights>(m_level);
        hostCall("DroitsUtilisateur", [&] { m_control->DroitsUtilisateur(rights); });
    }
    hostCall("Init", [&] { m_control->Init(); });
}

void Session::call(LineReader& r)
{
    const std::string name = r.word();
    r.expectEnd();
    const auto it = publicMethods().find(name);
    if (it == publicMethods().end()) {
        throw BadCommand("no public method " + name);
    }
    hostCall(it->first.data(), [&] { ((*m_control).*(it->second))(); });
}

void Session::set(LineReader& r)
{
    r.keyword("W_Sortir");
    const bool value = r.boolean();
    r.expectEnd();
    m_control->W_Sortir = value;
}

void Session::close(LineReader& r)
{
    r.expectEnd();
    terminateControl();
}

void Session::log(LineReader& r)
{
    const std::string state = r.word();
    r.expectEnd();
    if (state != "on" && state != "off") {
        throw BadCommand("log on or off");
    }
    m_database->setLogging(state == "on");
}

// ---- Operator ---------------------------------------------------------------

Control& Session::control(const std::string& name, bool userControl) const
{
    if (name == "UserControl" && !userControl) {
        throw BadCommand("UserControl is not allowed here");
    }
    Control* c = m_control->Controls().find(name);
    if (!c) {
        throw BadCommand("no control " + name);
    }
    return *c;
}

bool Session::operatorMay(std::initializer_list<const Control*> controls, bool menu)
{
    bool may = !m_control->terminated() && (!menu || m_host.popupOpen());
    for (const Control* c : controls) {
        may = may && m_control->Controls().canReach(*c);
    }
    if (!may) {
        m_events->push("REFUSED " + std::string(m_line));
        return false;
    }
    m_host.closePopup();
    return true;
}

void Session::takeFocus(Control& control)
{
    if (takesFocus(control)) {
        m_control->Controls().moveFocus(&control);
    }
}

bool Session::hasEntry(Control& list, std::int64_t index)
{
    if (index >= 0 && index < list.listCount()) {
        return true;
    }
    check(false, "an entry " + std::to_string(index) + " in " + list.name(),
        "ListCount " + std::to_string(list.listCount()));
    return false;
}

void Session::focus(LineReader& r)
{
    Control& c = control(r.word());
    r.expectEnd();
    if (operatorMay({&c})) {
        m_control->Controls().moveFocus(&c);
        settle();
    }
}

void Session::blur(LineReader& r)
{
    r.expectEnd();
    if (operatorMay({})) {
        m_control->Controls().moveFocus(nullptr);
        settle();
    }
}

void Session::type(LineReader& r)
{
    Control& c = control(r.word());
    const std::string text = r.string();
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    takeFocus(c);
    for (const char32_t cp : codePoints(text)) {
        c.operatorKey(static_cast<std::int16_t>(cp));
    }
    settle();
}

void Session::key(LineReader& r)
{
    Control& c = control(r.word());
    const std::int16_t code = toInt16(r.integer());
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    takeFocus(c);
    c.operatorKey(code);
    settle();
}

void Session::selectall(LineReader& r)
{
    Control& c = control(r.word());
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    takeFocus(c);
    c.operatorSelectAll();
    settle();
}

void Session::paste(LineReader& r)
{
    Control& c = control(r.word());
    const std::string text = r.string();
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    takeFocus(c);
    c.operatorPaste(text);
    settle();
}

void Session::pick(LineReader& r)
{
    Control& c = control(r.word());
    const std::int64_t index = r.integer();
    r.expectEnd();
    if (c.kind() != ControlKind::ComboBox) {
        throw BadCommand("pick needs a ComboBox");
    }
    if (!operatorMay({&c}) || !hasEntry(c, index)) {
        return;
    }
    takeFocus(c);
    m_control->Controls().operatorPick(c, static_cast<std::int16_t>(index));
    settle();
}

void Session::click(LineReader& r)
{
    Control& c = control(r.word());
    if (c.kind() == ControlKind::ListBox) {
        const std::int64_t index = r.integer();
        r.expectEnd();
        if (!operatorMay({&c}) || !hasEntry(c, index)) {
            return;
        }
        takeFocus(c);
        m_control->Controls().operatorClickList(c, static_cast<std::int16_t>(index));
    } else {
        r.expectEnd();
        if (c.kind() != ControlKind::CommandButton && c.kind() != ControlKind::OptionButton) {
            throw BadCommand("click needs a CommandButton, an OptionButton or a ListBox");
        }
        if (!operatorMay({&c})) {
            return;
        }
        takeFocus(c);
        m_control->Controls().operatorClick(c);
    }
    settle();
}

void Session::dblclick(LineReader& r)
{
    Control& c = control(r.word());
    const std::int64_t index = r.integer();
    r.expectEnd();
    if (c.kind() != ControlKind::ListBox) {
        throw BadCommand("dblclick needs a ListBox");
    }
    if (!operatorMay({&c}) || !hasEntry(c, index)) {
        return;
    }
    takeFocus(c);
    m_control->Controls().operatorDblClickList(c, static_cast<std::int16_t>(index));
    settle();
}

void Session::drag(LineReader& r)
{
    Control& source = control(r.word());
    Control& target = control(r.word());
    r.expectEnd();
    if (!operatorMay({&source, &target})) {
        return;
    }
    takeFocus(source);
    ScreenModel& screen = m_control->Controls();
    screen.operatorMouseDown(source, 1);
    screen.drop(target);
    settle();
}

void Session::mousedown(LineReader& r)
{
    Control& c = control(r.word(), true);
    const std::int64_t button = r.integer();
    r.expectEnd();
    if (button != 1 && button != 2 && button != 4) {
        throw BadCommand("button 1, 2 or 4");
    }
    if (!operatorMay({&c})) {
        return;
    }
    takeFocus(c);
    m_control->Controls().operatorMouseDown(c, static_cast<std::int16_t>(button));
    settle();
}

void Session::menu(LineReader& r)
{
    Control& c = control(r.word());
    r.expectEnd();
    if (c.kind() != ControlKind::MenuEntry) {
        throw BadCommand("menu needs a menu entry");
    }
    if (!operatorMay({&c}, true)) {
        return;
    }
    m_control->Controls().operatorClick(c);
    settle();
}

// ---- Expectations -----------------------------------------------------------

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
            names.push_back(entry.path().filename().string());
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
        const Control* focus = m_control->Controls().focus();
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
            : subject == "Tab_EntiteRecherche"                            ? &m_control->tabEntiteRecherche()
            : subject == "Tab_Cles"                                       ? &m_control->tabCles()
            : subject == "Tab_Selection"                                  ? &m_control->tabSelection()
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
        report(Value::of(std::int64_t{m_control->Controls().mousePointer()}));
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
        index = toInt16(inner.integer());
        inner.expectEnd();
        prop.resize(open);
        if (prop != "List" && prop != "Selected" && prop != "ItemData") {
            throw BadCommand(prop + " takes no index");
        }
    }

    if (prop == "Text") {
        need(Value::Kind::String);
        report(Value::of(c.text()));
    } else if (prop == "Enabled" || prop == "Visible" || prop == "Value") {
        need(Value::Kind::Boolean);
        report(Value::of(prop == "Enabled" ? c.enabled() : prop == "Visible" ? c.visible() : c.value()));
    } else if (prop == "ListIndex" || prop == "ListCount" || prop == "NewIndex" || prop == "MaxLength") {
        need(Value::Kind::Integer);
        const std::int16_t n = prop == "ListIndex" ? c.listIndex()
            : prop == "ListCount"                 ? c.listCount()
            : prop == "NewIndex"                  ? c.newIndex()
                                                  : c.maxLength();
        report(Value::of(std::int64_t{n}));
    } else if (prop == "List" && index) {
        need(Value::Kind::String);
        report(Value::of(c.list(*index)));
    } else if (prop == "Selected" && index) {
        need(Value::Kind::Boolean);
        report(Value::of(c.selected(*index)));
    } else if (prop == "ItemData" && index) {
        need(Value::Kind::Integer);
        report(Value::of(std::int64_t{c.itemData(*index)}));
    } else if (prop == "List" || prop == "Selected" || prop == "ItemData") {
        needList(prop == "List" ? Value::Kind::String : Value::Kind::Integer);
        std::vector<Value> items;
        for (std::int16_t i = 0; i < c.listCount(); ++i) {
            if (prop == "List") {
                items.push_back(Value::of(c.list(i)));
            } else if (prop == "ItemData") {
                items.push_back(Value::of(std::int64_t{c.itemData(i)}));
            } else if (c.selected(i)) {
                items.push_back(Value::of(std::int64_t{i}));
            }
        }
        report(Value::list(std::move(items)));
    } else {
        throw BadCommand("no property " + prop);
    }
}

} // namespace script

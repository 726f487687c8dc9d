#include "shell/ScreenTable.h"
#include "shell/Int16.h"

#include <algorithm>

namespace {

using K = ControlKind;

// clang-format off
constexpr ControlRow kControls[] = {
    // tab name               kind              frame           caption                    left  top   width height initial values, handled events, parent menu
    {0,  "Cbo_Entite",      K::ComboBox,      "",             "",                        2400, 480,  4935, 315,  "", "Change Click KeyPress", ""},
    {1,  "Cdr_Activite",    K::Frame,         "",             "Type activité",           120,  840,  7215, 735,  "", "MouseDown", ""},
    {2,  "Opt_Inter",       K::OptionButton,  "Cdr_Activite", "Intermédiaire",           5400, 360,  1575, 195,  "", "Click", ""},
    {3,  "Opt_Mandat",      K::OptionButton,  "Cdr_Activite", "Mandataire",              3000, 360,  1335, 195,  "", "Click", ""},
    {4,  "Opt_Prest",       K::OptionButton,  "Cdr_Activite", "Prestataire",             240,  360,  1335, 195,  "", "Click", ""},
    {5,  "Txt_Entite",      K::TextBox,       "",             "",                        1800, 480,  495,  315,  "MaxLength 3", "Change KeyPress LostFocus", ""},
    {6,  "Etq_Entite",      K::Label,         "",             "Entité juridique",        120,  480,  1035, 195,  "", "", ""},
    {7,  "Etq_Periode",     K::Label,         "",             "Période de traitement",   120,  120,  1500, 195,  "", "", ""},
    {8,  "Cbo_Periode",     K::ComboBox,      "",             "",                        1800, 120,  2175, 315,  "Style 2", "Click", ""},
    {9,  "Lst_OrgaPos",     K::ListBox,       "",             "",                        120,  3120, 7215, 1740, "MultiSelect 1, Courier New 8.25, DragIcon", "Click DblClick DragDrop MouseDown", ""},
    {10, "Etq_OrgaPos",     K::Label,         "",             "Organismes possibles",    120,  2880, 1515, 195,  "", "", ""},
    {11, "Etq_FacturePos",  K::Label,         "",             "Factures",                6120, 2880, 615,  195,  "", "", ""},
    {12, "Cmd_PasseGauche", K::CommandButton, "",             "",                        3480, 4920, 495,  375,  "Enabled False, Picture, Style 1", "Click", ""},
    {13, "Cmd_PasseDroit",  K::CommandButton, "",             "",                        1440, 4920, 495,  375,  "Enabled False, Picture, Style 1", "Click", ""},
    {14, "Cmd_Tous",        K::CommandButton, "",             "Tous",                    5520, 4920, 615,  375,  "", "Click", ""},
    {15, "Lst_OrgaSel",     K::ListBox,       "",             "",                        120,  5640, 7215, 1530, "MultiSelect 1, Courier New 8.25, DragIcon", "Click DblClick DragDrop MouseDown", ""},
    {16, "Etq_OrgaSel",     K::Label,         "",             "Organismes sélectionnés", 120,  5400, 1755, 195,  "", "", ""},
    {17, "Etq_FactureSel",  K::Label,         "",             "Factures",                6120, 5400, 615,  195,  "", "", ""},
    {18, "Cmd_Sortir",      K::CommandButton, "",             "Sortir",                  6480, 7920, 855,  375,  "", "Click", ""},
    {19, "Cmd_Imprimer",    K::CommandButton, "",             "Imprimer",                5400, 7920, 855,  375,  "Enabled False", "Click", ""},
    {20, "Lst_CodeOrgaPos", K::ListBox,       "",             "",                        120,  3360, 255,  1230, "Visible False, MultiSelect 1", "Click", ""},
    {21, "Lst_CodeOrgaSel", K::ListBox,       "",             "",                        120,  5760, 255,  1230, "Visible False, MultiSelect 1", "Click", ""},
    {22, "Ctr_Belmontis1",  K::Sibling,       "",             "",                        120,  7800, 1095, 735,  "Visible False", "", ""},
    {23, "Cdr_Edition",     K::Frame,         "",             "Edition sous forme",      120,  7200, 7215, 615,  "", "", ""},
    {24, "Opt_Papier",      K::OptionButton,  "Cdr_Edition",  "état papier",             1200, 240,  1455, 255,  "Value True", "", ""},
    {25, "Opt_Fichier",     K::OptionButton,  "Cdr_Edition",  "fichier graphique",       3960, 240,  1815, 255,  "", "", ""},
    {26, "Cdr_Select",      K::Frame,         "",             "Sélection",               120,  1680, 7215, 975,  "Enabled False", "", ""},
    {27, "Opt_Org",         K::OptionButton,  "Cdr_Select",   "Par organisme",           2280, 240,  1575, 195,  "", "Click", ""},
    {28, "Opt_NumFact",     K::OptionButton,  "Cdr_Select",   "Par numéro de facture",   4560, 240,  2175, 195,  "", "Click", ""},
    {29, "Cbo_Tri",         K::ComboBox,      "Cdr_Select",   "",                        960,  600,  5895, 315,  "Visible False, Sorted True", "Change Click", ""},
    {30, "Txt_Tri",         K::TextBox,       "Cdr_Select",   "",                        360,  600,  495,  315,  "Visible False, MaxLength 3", "Change KeyPress LostFocus", ""},
    {31, "Opt_Tous",        K::OptionButton,  "Cdr_Select",   "Tous",                    720,  240,  975,  195,  "Value True", "Click", ""},
    {-1, "Mnu_Aide",        K::MenuEntry,     "",             "Aide",                    0,    0,    0,    0,    "", "", ""},
    {-1, "Mnu_Sommaire",    K::MenuEntry,     "",             "Aide_TRIVALDEN",          0,    0,    0,    0,    "", "Click", "Mnu_Aide"},
};
// clang-format on

} // namespace

InitialValues initialValues(const ControlRow& row)
{
    InitialValues v;
    auto number = [&](std::string_view word) -> std::int16_t {
        const auto at = row.initial.find(word);
        if (at == std::string_view::npos) {
            return 0;
        }
        std::int16_t n = 0;
        for (auto i = at + word.size() + 1; i < row.initial.size() && row.initial[i] >= '0' && row.initial[i] <= '9'; ++i) {
            n = CInt16(n * 10 + (row.initial[i] - '0'));
        }
        return n;
    };
    auto has = [&](std::string_view words) { return row.initial.find(words) != std::string_view::npos; };
    v.enabled = !has("Enabled False");
    v.visible = !has("Visible False");
    v.value = has("Value True");
    v.sorted = has("Sorted True");
    v.fixedFont = has("Courier New");
    v.hasPicture = has("Picture");
    v.maxLength = number("MaxLength");
    v.style = number("Style");
    return v;
}

namespace ScreenTable {

std::span<const ControlRow> controls()
{
    return kControls;
}

const ControlRow* find(std::string_view name)
{
    const auto* it = std::find_if(std::begin(kControls), std::end(kControls), [&](const ControlRow& c) { return c.name == name; });
    return it == std::end(kControls) ? nullptr : it;
}

} // namespace ScreenTable

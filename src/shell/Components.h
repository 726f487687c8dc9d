#pragma once

// The platform components the control works with, as the control sees them:
// the user's rights, the help component and late-bound objects (the sibling
// printing control). Real implementations live under platform/.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "database/Dba.h"

// The user's right on one screen.
class SorbelaneDroit {
public:
    virtual ~SorbelaneDroit() = default;
    virtual std::int32_t Niveau() const = 0;
};

// The rights of one user, which the host hands to the control.
class SorbelaneDroits {
public:
    virtual ~SorbelaneDroits() = default;
    // The right on the screen of that code. Throws on failure.
    virtual std::shared_ptr<SorbelaneDroit> LireDroit(const std::string& screenCode) = 0;
};

// The help component: shows a help page in a help window.
class AideEnLigne {
public:
    virtual ~AideEnLigne() = default;
    virtual void Client(std::shared_ptr<DbaClient> client) = 0;
    virtual void Base(std::shared_ptr<DbaDatabase> base) = 0;
    // Shows the page; the result is free text.
    virtual std::string AfficherPage(std::string& page, std::string& mode, std::string& title) = 0;
};

// A value handed to a late-bound member.
using Variant = std::variant<std::monostate, bool, std::int32_t, std::string, std::shared_ptr<DbaDatabase>,
    std::shared_ptr<DbaClient>, std::shared_ptr<DbaDynArray>>;

// An object reached through its members by name at run time, as the sibling
// printing control is. Throws std::invalid_argument for a member it lacks.
class LateBoundObject {
public:
    virtual ~LateBoundObject() = default;
    // Stores a property; value is passed by reference.
    virtual void setProperty(std::string_view name, Variant& value) = 0;
    // Calls a method; arguments are passed by reference.
    virtual Variant invoke(std::string_view name, std::vector<std::reference_wrapper<Variant>> args) = 0;
};

#pragma once

#include <memory>
#include <stdexcept>
#include <string>

// The object behind a shared reference; an empty reference fails as the
// language's "object variable not set" does, instead of crashing.
template <class T>
T& Obj(const std::shared_ptr<T>& reference, const char* name)
{
    if (!reference) {
        throw std::logic_error(std::string("object variable not set: ") + name);
    }
    return *reference;
}

// The one table from request keys and the responder's other public
// operation names to what they call. Clients may name any of them.
#pragma once

#include <functional>
#include <string_view>

#include "platform/Value.h"

class QLXHMessageResponder;

namespace QLXHRequestTable {

using Operation = std::function<bool(QLXHMessageResponder& responder,
                                     const platform::Value& parameter)>;

// nullptr when the responder has no operation of that name.
const Operation* lookup(std::string_view name);

// Adds or replaces an entry; for tests that need an operation of their own.
void registerOperation(std::string_view name, Operation operation);

}  // namespace QLXHRequestTable

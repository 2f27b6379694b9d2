#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <string_view>

/// What the box knows of a manager's answer to a PreSignIn, the element preSignInTavoResponse
/// (null: nothing is done). Managers write it with or without namespaces, and write more than the
/// box reads.
namespace ManagerElements {

/// Takes away what tells the box nothing: elements below the answer in a namespace that is not of
/// the manager's service, and those that are nil. A nil preSignInTavoReturn stays, as an empty one.
void DropForeignAndNil(xmlNode* answer);

/// Takes away the elements below the answer that the box does not read, wherever they stand, and
/// the attributes and namespaces of those that it reads. What they hold is not checked.
void DropUnknown(xmlNode* answer);

/// Whether a value is one line of up to that many bytes, without control characters: one that
/// becomes part of a file of settings stays one setting.
bool IsLine(std::string_view value, std::size_t maxLength);

}  // namespace ManagerElements

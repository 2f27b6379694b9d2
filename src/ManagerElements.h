#pragma once

#include <libxml/tree.h>

/// What the box knows of a manager's answer to a PreSignIn, the element preSignInTavoResponse
/// (null: nothing is done). Managers write it with or without namespaces, and write more than the
/// box reads.
namespace ManagerElements {

/// Takes away what tells the box nothing: elements below the answer in a namespace that is not of
/// the manager's service, and those that are nil. A nil preSignInTavoReturn stays, as an empty one.
void DropForeignAndNil(xmlNode* answer);

/// Takes away the elements below the answer that the box does not read, wherever they stand, and
/// of what is left attributes and namespaces. Its content is not checked.
void DropUnknown(xmlNode* answer);

}  // namespace ManagerElements

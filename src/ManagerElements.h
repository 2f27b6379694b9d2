#pragma once

#include <libxml/tree.h>

/// What the box knows of a manager's answer to a PreSignIn. Managers write it with or without
/// namespaces, say of an element that it has no value, and write more than the box reads.
namespace ManagerElements {

/// Takes away what is no value of this manager's service: the elements below `preSignInReturn`
/// (null: nothing) that are nil, and those in a namespace of somebody else's.
void DropNil(xmlNode* preSignInReturn);

/// Takes away the elements below `preSignInResponse` (null: nothing) that the box reads nothing
/// of, wherever they stand, and from the others their attributes and namespace, which say nothing
/// to it. The content of what is left is checked by the schemas.
void DropUnknown(xmlNode* preSignInResponse);

}  // namespace ManagerElements

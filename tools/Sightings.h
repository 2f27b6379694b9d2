#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Box.h"
#include "BoxMemory.h"

/// What all searches of the user have seen, in a file of his beside the handles (HandleStore). To
/// keep it is no purpose of any command: what cannot be read or written is not there.
namespace Sightings {

/// The file, in a directory that is made where it is missing; empty when the user has no home.
std::string Path();

/// Adds the boxes that have just been seen.
void Note(const std::vector<Box>& boxes);

/// Adds a box, and tells since when it has been seen reserved by who has it now, this time
/// included. Nothing when it is free.
std::optional<BoxMemory::Seconds> NoteReserved(const Box& box);

}  // namespace Sightings

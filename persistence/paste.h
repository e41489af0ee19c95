#pragma once

#include "persistence/command.h"
#include "persistence/model_commands.h"
#include "persistence/read_result.h"

#include <QByteArray>

#include <cstddef>

namespace corv::model {
class Project;
}

namespace corv::engine {

// Reads a racks clipboard document for a paste into target, giving fresh ids
// to the racks and nodes whose ids target already uses (the same fresh id in
// definitions and references). Returns the command that puts the pasted racks
// at index, in document order, with all their nodes; null when the document
// does not read (*result tells why; the reader has logged it) or holds no rack.
CommandPtr paste_racks_command(const QByteArray &document, model::Project &target, std::size_t index,
                               ReadResult *result = nullptr);

// The same for a nodes clipboard document: the copied top nodes, with their
// descendants, go to consecutive indexes from place.index.
CommandPtr paste_nodes_command(const QByteArray &document, model::Project &target, const NodePlace &place,
                               ReadResult *result = nullptr);

} // namespace corv::engine

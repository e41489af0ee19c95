#pragma once

#include "persistence/id_translator.h"
#include "persistence/read_result.h"

#include <QByteArray>
#include <QList>
#include <QUuid>

#include <functional>

namespace corv::model {
class Project;
class PropertyCollection;
} // namespace corv::model

namespace corv::engine {

// The readers of the four XML documents. Each reads a whole document held in
// memory into its target and returns the outcome; a failure is logged once as
// a warning with the line number,
//   "(while parsing project; line %i) %s"   for ParseError,
//   "(while loading project; line %i) %s"   for LoadError, TooOld and TooNew,
// and ends reading. Nothing is rolled back: what was read before the failure
// stays in the target, which the caller discards.

// A `project` document (version 1) into project. Racks are appended to the
// profile in document order; references may name definitions that come later
// or not at all.
ReadResult read_project(const QByteArray &document, model::Project &project,
                        const IdTranslator &translator = IdTranslator());

// A racks clipboard document (root `racks`, no version): the same content as
// a project.
ReadResult read_racks_clipboard(const QByteArray &document, model::Project &project,
                                const IdTranslator &translator = IdTranslator());

// A nodes clipboard document (root `nodes`): node definitions inside
// `definitions`, then one reference per copied top node. The translated ids
// of the top nodes are appended to top_nodes, in document order.
ReadResult read_nodes_clipboard(const QByteArray &document, model::Project &project,
                                const IdTranslator &translator, QList<QUuid> *top_nodes);

// Called after a preferences document was read without error, for example
// to convert keys written by another version of a plugin (the plugin loader
// adapts the plugin's load-migration entry point to it).
using PreferencesLoadHook = std::function<void(model::PropertyCollection &collection)>;

// A `preferences` document (version 1, `prop` children only) into collection;
// keys are taken whole.
ReadResult read_preferences(const QByteArray &document, model::PropertyCollection &collection,
                            const PreferencesLoadHook &after_load = {});

} // namespace corv::engine

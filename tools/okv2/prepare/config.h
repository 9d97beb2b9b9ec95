// config.json: what an import reads from its top level, brought there.
#pragma once

#include "okv2/prepare/model_texts.h"
#include "okv2/prepare/outcome.h"

namespace zel::tool::prepare {

// Fills the keys that an import reads and that give nothing yet, by the tables of config_table.h: from the
// nested description of the text model, from other spellings there and at the top level, and from the rule by
// which the model's class computes a size that is left out. Derives the settings of Gemma 4's layers. Moves a
// list of end-of-sequence ids, of which an import takes one, to generation_config.json, which the container
// keeps as text. Nothing that is given already is changed, but what an import would take in place of
// something else. Appends what it changed to `changes`.
void mendConfig(ModelTexts& texts, Changes& changes);

}  // namespace zel::tool::prepare

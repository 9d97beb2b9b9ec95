// The four special ids of a tokenizer, settled where an import would not find them.
#pragma once

#include "okv2/prepare/model_texts.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/tokenizer.h"

namespace zel::tool::prepare {

// Settles the ids for beginning, end, unknown and padding that config.json does not give, or gives as
// negative, which stands for none: by the texts that tokenizer_config.json and special_tokens_map.json name
// (fileThatNames()), else by the file's own model, else by generation_config.json, else by the nested text
// configuration of config.json. An id counts only when the vocabulary holds it.
//
// For a tokenizer.json the ids are put into config.json, from where they are read; into the settings of a
// tokenizer.model otherwise. There the texts come first too, as in the public `transformers` library, and the
// ids of config.json behind those of generation_config.json, because an import does not read them for such a
// file.
void settleSpecialIds(ModelTexts& texts, Tokenizer& tokenizer, Changes& changes);

}  // namespace zel::tool::prepare

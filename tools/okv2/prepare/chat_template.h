// The chat template: brought to where an import reads it.
#pragma once

#include <string>

#include "okv2/prepare/model_texts.h"
#include "okv2/prepare/outcome.h"

namespace zel::tool::prepare {

// The template of a directory is, as the public `transformers` library chooses: chat_template.jinja, else
// "chat_template" of tokenizer_config.json (the text, or the entry named "default" of a list), else that of
// chat_template.json. It becomes the text "chat_template" of tokenizer_config.json. A template in
// config.json, where that library does not look, stays when there is no other and goes otherwise: an import
// would prefer it. A list without an entry "default" stays as it is: which one is meant, nobody says; that of
// chat_template.json, and what is no template, is among the losses of `texts`.
// Appends what it changed to `changes`. Throws Refused when chat_template.jinja is no UTF-8, and when
// chat_template.json has to be read and is no JSON object.
void mendChatTemplate(const std::string& directory, ModelTexts& texts, Changes& changes);

}  // namespace zel::tool::prepare

// What every reader of untrusted bytes promises, one function a reader. Each runs the reader over `input`,
// any bytes of any length, and throws BrokenPromise when something does not hold. Give it a block of memory
// of its own size: the address sanitizer then sees a read of one byte too many.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "promises/promise.h"

namespace zel::fuzz {

// A JSON text. parse() agrees with a plain reader in verdict, message and tree, and skip() with parse().
void checkJson(std::string_view input);

// A .safetensors file. Agrees with a plain reader over the JSON tree; tensors lie inside the input.
void checkSafetensors(std::string_view input);

// A PyTorch archive. Agrees with a plain reader; entries and tensors lie where they are said to.
void checkPyTorch(std::string_view input);

// A pickle program. Agrees with a machine that copies everything, in verdict, message and stack.
void checkPickle(std::string_view input);

// A tokenizer.json; what follows the first NUL byte, which JSON has no use for, is the config.json. Agrees
// with a plain reader over the JSON tree.
void checkTokenizerJson(std::string_view input);

// A tokenizer.model. Agrees with a plain reader.
void checkTokenizerModel(std::string_view input);

// A tokenizer.model as `okv2 prepare` meets it. Every piece of a public model arrives where an import reads
// it; a refusal is a known one; equal inputs give equal bytes.
void checkSentencePiece(std::string_view input);

// A container, as it is and with its checksum made to fit. What passes verification can be written again,
// byte for byte, from what was read of it.
void checkContainer(std::string_view input);

// A model directory packed into an archive (archive.h). Two imports do the same; what they report and what
// verification finds agree.
void checkDirectory(std::string_view input);

// An ordinary torch.save checkpoint in the zip form; input that does not begin like an archive is the program
// of one. Tensors lie inside their storages, storages inside the file; what is unpacked is as long as
// declared, and what is gathered of a tensor is what one finds element by element. Equal files give equal
// checkpoints.
void checkTorchZip(std::string_view input);

// The same in the form before; input that does not begin with the magic number is what follows the first
// three pickles.
void checkTorchLegacy(std::string_view input);

}  // namespace zel::fuzz

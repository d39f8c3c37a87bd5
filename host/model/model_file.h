/*
 * The JSON file that describes a data model (docs/data-model.md tells its form).
 */
#ifndef HOST_MODEL_MODEL_FILE_H
#define HOST_MODEL_MODEL_FILE_H

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/text_forms.h"
#include "host/model/node.h"

namespace keel {

/* A data-model file that cannot be used: what() names file, path and reason. */
class ModelError : public std::runtime_error {
public:
    /* What is quoted of the file may hold anything: a NUL would end what() before the reason. */
    explicit ModelError(const std::string &text) : std::runtime_error(printable_text(text, text.size())) {}
};

/* The shape of the root, and all that it refers to. Throws ModelError; file is for its text. */
using Shapes = std::vector<std::unique_ptr<const Shape>>;
const Shape *read_shapes(std::string_view json, const std::string &file, Shapes &shapes);

/* Whether a text can be the name of an instance. */
bool valid_key(std::string_view key);

} // namespace keel

#endif

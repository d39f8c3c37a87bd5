#include "host/model/node.h"

#include <algorithm>
#include <utility>

namespace keel {

namespace {
constexpr std::size_t few = 8; /* children that are sooner walked than indexed */

bool has_dot(const Node &node) {
    return node.name.find('.') != std::string::npos;
}

} // namespace

const ParameterShape *Shape::parameter(std::string_view name) const {
    const auto found =
        std::find_if(parameters.begin(), parameters.end(), [&](const ParameterShape &one) { return one.name == name; });
    return found == parameters.end() ? nullptr : &*found;
}

/* -------------------------------------------------------------------------------------------------- children */

Children::Children() = default;
Children::~Children() = default;

Node *Children::find(std::string_view name) const {
    if (index_) {
        const auto found = index_->find(name);
        return found == index_->end() ? nullptr : &*found->second;
    }
    const auto found = std::find_if(nodes_.begin(), nodes_.end(), [&](const Node &node) { return node.name == name; });
    return found == nodes_.end() ? nullptr : const_cast<Node *>(&*found);
}

Node *Children::first_on(std::string_view path) const {
    if (with_dots_ == 0)
        return find(path.substr(0, path.find('.')));
    Node *longest = nullptr;
    for (std::size_t end = path.find('.');; end = path.find('.', end + 1)) {
        if (Node *node = find(path.substr(0, end)))
            longest = node;
        if (end > max_name) /* the end of the path, too */
            return longest;
    }
}

std::string Children::free_number() const {
    while (find(std::to_string(lowest_free_)))
        ++lowest_free_;
    return std::to_string(lowest_free_);
}

Node &Children::append(std::string name) {
    Node &node = nodes_.emplace_back();
    node.name = std::move(name);
    with_dots_ += has_dot(node);
    if (index_) {
        index_->emplace(node.name, std::prev(nodes_.end()));
    } else if (nodes_.size() > few) {
        index_ = std::make_unique<std::unordered_map<std::string_view, Position>>();
        for (auto at = nodes_.begin(); at != nodes_.end(); ++at)
            index_->emplace(at->name, at);
    }
    return node;
}

void Children::remove(const Node &child) {
    if (const auto number = parse_value(Type::UInt32, child.name))
        lowest_free_ =
            std::clamp<std::uint32_t>(static_cast<std::uint32_t>(std::get<std::int64_t>(*number)), 1, lowest_free_);
    with_dots_ -= has_dot(child);
    if (!index_) {
        nodes_.remove_if([&](const Node &node) { return &node == &child; });
        return;
    }
    const auto found = index_->find(child.name);
    const Position position = found->second;
    index_->erase(found);
    nodes_.erase(position);
}

/* ------------------------------------------------------------------------------------------------------ node */

Parameter *Node::parameter(std::string_view parameter_name) {
    const auto found = std::find_if(parameters.begin(), parameters.end(),
                                    [&](const Parameter &one) { return one.name() == parameter_name; });
    return found == parameters.end() ? nullptr : &*found;
}

const Parameter *Node::parameter(std::string_view parameter_name) const {
    return const_cast<Node *>(this)->parameter(parameter_name);
}

std::string Node::path() const {
    std::size_t length = 0;
    for (const Node *at = this; at->parent; at = at->parent)
        length += at->name.size() + 1;
    if (length == 0)
        return "";
    std::string text(length - 1, '.'); /* filled from the end */
    for (const Node *at = this; at->parent; at = at->parent) {
        length -= at->name.size() + 1;
        text.replace(length, at->name.size(), at->name);
    }
    return text;
}

std::vector<std::string> Node::steps() const {
    std::size_t depth = 0;
    for (const Node *at = this; at->parent; at = at->parent)
        ++depth;
    std::vector<std::string> names(depth);
    for (const Node *at = this; at->parent; at = at->parent)
        names[--depth] = at->name;
    return names;
}

Values Node::values() const {
    Values all;
    for (const Parameter &one : parameters)
        if (one.present)
            all[one.name()] = one.value;
    return all;
}

Node *descend(Node *from, std::string_view path) {
    while (from && !path.empty()) {
        from = from->children.first_on(path);
        if (from)
            path.remove_prefix(std::min(path.size(), from->name.size() + 1));
    }
    return from;
}

namespace {

void make_persistent(Node &node) {
    node.persistent = true;
    for (const Node &child : node.children)
        if (child.shape->persistent_once.empty())
            make_persistent(*node.children.find(child.name));
}

void place_initial(Node &multi, const Shape::Initial &initial, std::uint64_t generation) {
    Node *node = multi.children.find(initial.name);
    if (!node)
        node = &grow_instance(multi, initial.name, generation);
    for (const auto &[name, value] : initial.values) {
        Parameter &parameter = *node->parameter(name);
        parameter.value = value;
        parameter.present = true;
    }
    follow_persistence(*node);
    for (const auto &[object, instances] : initial.below)
        for (const Shape::Initial &below : instances)
            place_initial(*node->children.find(object), below, generation);
}

} // namespace

void grow(Node &node, const Shape &shape, std::uint64_t generation) {
    node.shape = &shape;
    node.generation = generation;
    node.multi = shape.instance != nullptr;
    node.instance = node.parent && node.parent->multi;
    node.persistent = shape.persistent_once.empty() && (shape.persistent || (node.parent && node.parent->persistent));
    node.parameters.reserve(shape.parameters.size());
    for (const ParameterShape &one : shape.parameters)
        node.parameters.push_back({&one, one.initial, one.present});
    for (const auto &[child_name, child_shape] : shape.objects) {
        Node &child = node.children.append(child_name);
        child.parent = &node;
        grow(child, *child_shape, generation);
    }
    for (const Shape::Initial &initial : shape.instances)
        place_initial(node, initial, generation);
}

void follow_persistence(Node &node) {
    const std::string &once = node.shape->persistent_once;
    if (!node.persistent && !once.empty() && node.parameter(once)->value == Value(true))
        make_persistent(node);
}

Node &grow_instance(Node &multi, std::string name, std::uint64_t generation) {
    Node &node = multi.children.append(std::move(name));
    node.parent = &multi;
    grow(node, *multi.shape->instance, generation);
    return node;
}

std::string join_path(const std::string &path, std::string_view name) {
    std::string joined = path;
    if (!joined.empty())
        joined += '.';
    joined += name;
    return joined;
}

} // namespace keel

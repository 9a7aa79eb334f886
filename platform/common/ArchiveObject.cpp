// SPDX-License-Identifier: Apache-2.0
// Objects as archives hold them.
#include <utility>

#include "platform/Archive.h"

namespace kelvane::archive {

Object::Object(const Class& type, std::vector<Field> fields) : type_(&type), fields_(std::move(fields)) {
  fields_.resize(type.fields.size());
}

Object::~Object() = default;
Object::Object(const Object&) = default;
Object::Object(Object&&) noexcept = default;
Object& Object::operator=(const Object&) = default;
Object& Object::operator=(Object&&) noexcept = default;

Value Object::value(std::size_t field) const {
  const auto* value = std::get_if<Value>(&fields_[field]);
  return value != nullptr ? *value : Value();
}

const Objects* Object::objects(std::size_t field) const {
  return std::get_if<Objects>(&fields_[field]);
}

bool operator==(const Object& left, const Object& right) {
  return left.type_->name == right.type_->name && left.type_->version == right.type_->version &&
         left.fields_ == right.fields_;
}

}  // namespace kelvane::archive

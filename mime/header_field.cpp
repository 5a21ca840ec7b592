#include "mime/header_field.h"

#include <algorithm>

namespace trv {

const CXmParameter* CXmHeaderField::FindParam(WStringView name) const {
  for (const CXmParameter& p : params_) {
    if (EqualsNoCase(p.name, name)) return &p;
  }
  return nullptr;
}

WString CXmHeaderField::GetParam(WStringView name) const {
  const CXmParameter* p = FindParam(name);
  return p ? p->value : WString();
}

void CXmHeaderField::set_name(WString name) {
  name_ = std::move(name);
  raw_.clear();
}

void CXmHeaderField::set_value(WString value) {
  value_ = std::move(value);
  raw_.clear();
}

void CXmHeaderField::set_comment(WString comment) {
  comment_ = std::move(comment);
  raw_.clear();
}

void CXmHeaderField::SetParam(WStringView name, WString value) {
  raw_.clear();
  for (CXmParameter& p : params_) {
    if (EqualsNoCase(p.name, name)) {
      p.value = std::move(value);
      p.language.clear();
      return;
    }
  }
  params_.push_back({WString(name), std::move(value), {}});
}

void CXmHeaderField::RemoveParam(WStringView name) {
  raw_.clear();
  std::erase_if(params_, [&](const CXmParameter& p) { return EqualsNoCase(p.name, name); });
}

void CXmHeaderField::ClearParams() {
  raw_.clear();
  params_.clear();
}

std::vector<CXmParameter>& CXmHeaderField::mutable_params() {
  raw_.clear();
  return params_;
}

}  // namespace trv

// One header field: its name, its raw text as read, and its value split into
// the value proper, comments and parameters (name and value pairs, in order).
#pragma once

#include <string>
#include <vector>

#include "base/wide_string.h"

namespace trv {

struct CXmParameter {
  WString name;
  WString value;
  WString language;  // RFC 2231 language tag of an extended value, else empty
};

class CXmHeaderField {
 public:
  CXmHeaderField() = default;
  CXmHeaderField(WString name, WString value) : name_(std::move(name)), value_(std::move(value)) {}

  const WString& name() const { return name_; }
  const WString& value() const { return value_; }
  // The text of the field's comments, round brackets removed.
  const WString& comment() const { return comment_; }
  const std::vector<CXmParameter>& params() const { return params_; }

  // The field's bytes as they stood in the header block (folds included, final
  // line end excluded); empty for a field made or changed here. While it is
  // not empty the writer writes these bytes unchanged, so a header read and
  // written again keeps its exact form.
  const std::string& raw() const { return raw_; }

  // Parameter lookup ignores case; the first match wins.
  const CXmParameter* FindParam(WStringView name) const;
  WString GetParam(WStringView name) const;

  // Changing anything drops the raw text.
  void set_name(WString name);
  void set_value(WString value);
  void set_comment(WString comment);
  void SetParam(WStringView name, WString value);  // replaces the first match or appends
  void RemoveParam(WStringView name);              // every match
  void ClearParams();
  std::vector<CXmParameter>& mutable_params();
  void set_raw(std::string raw) { raw_ = std::move(raw); }

 private:
  WString name_;
  WString value_;
  WString comment_;
  std::vector<CXmParameter> params_;
  std::string raw_;
};

}  // namespace trv

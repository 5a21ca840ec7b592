#include "mime/header_split.h"

#include "mime/field_line.h"
#include "mime/mime_result.h"

namespace trv {

namespace {

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t'; }

class Splitter {
 public:
  Splitter(WStringView text, size_t start) : text_(text), i_(start) {}

  Result Run(CXmHeaderField* field) {
    WString value;
    WString comment;
    std::vector<CXmParameter> params;
    CXmParameter param;
    enum Target { kValue, kParamName, kParamValue } where = kValue;
    auto target = [&]() -> WString& {
      return where == kValue ? value : where == kParamName ? param.name : param.value;
    };
    auto end_param = [&]() {
      if (where != kValue && !param.name.empty()) {
        if (params.size() < kMaxParameterCount) {
          params.push_back(std::move(param));
        } else {
          status_ = rc::kMimeSyntax;
        }
      }
      param = CXmParameter();
    };

    for (; i_ < text_.size(); ++i_) {
      const char16_t c = text_[i_];
      WString& t = target();
      if (c == u';') {
        blank_ = 0;
        end_param();
        where = kParamName;
      } else if (c == u'=' && where == kParamName) {
        blank_ = 0;
        where = kParamValue;
      } else if (c == u'(') {
        ReadComment(&comment);
      } else if (c == u'"' && !AfterBackslash()) {
        Flush(t);
        ReadQuoted(&t);
      } else if (IsBlank(c)) {
        if (!blank_ && !t.empty() && !IsBlank(t.back()) && t.back() != u'@' && t.back() != u'.') {
          blank_ = c;
        }
      } else {
        if (c == u'.' || c == u'@') blank_ = 0;
        Flush(t);
        t.push_back(c);
      }
    }
    end_param();
    field->set_value(std::move(value));
    field->set_comment(std::move(comment));
    field->mutable_params() = std::move(params);
    return status_;
  }

 private:
  bool AfterBackslash() const { return i_ > 0 && text_[i_ - 1] == u'\\'; }

  void Flush(WString& t) {
    if (blank_ && !t.empty()) t.push_back(blank_);
    blank_ = 0;
  }

  // At "(": reads to the matching ")" or the end; leaves i_ on the ")".
  void ReadComment(WString* comment) {
    if (!comment->empty()) comment->push_back(u' ');
    int depth = 0;
    for (; i_ < text_.size(); ++i_) {
      const char16_t c = text_[i_];
      if (c == u'\\' && i_ + 1 < text_.size()) {
        comment->push_back(text_[++i_]);
      } else if (c == u'(') {
        ++depth;
      } else if (c == u')') {
        if (--depth == 0) return;
      } else {
        comment->push_back(c);
      }
    }
  }

  // At the opening quote: appends the content; leaves i_ on the closing
  // quote or at the end.
  void ReadQuoted(WString* t) {
    for (++i_; i_ < text_.size(); ++i_) {
      const char16_t c = text_[i_];
      if (c == u'\\' && i_ + 1 < text_.size() && (text_[i_ + 1] == u'"' || text_[i_ + 1] == u'\\')) {
        t->push_back(text_[++i_]);
      } else if (c == u'"') {
        return;
      } else {
        t->push_back(c);
      }
    }
  }

  WStringView text_;
  size_t i_;
  char16_t blank_ = 0;  // a blank held until a character follows it
  Result status_;
};

}  // namespace

void SplitMediaType(WStringView value, WString* type, WString* subtype) {
  const size_t slash = value.find(u'/');
  *type = ToLowerAscii(TrimView(value.substr(0, slash)));
  *subtype = slash == WStringView::npos ? WString() : ToLowerAscii(TrimView(value.substr(slash + 1)));
}

Result SplitField(WStringView text, CXmHeaderField* field) {
  FieldLineSplit split;
  if (SplitFieldLine(text, &split)) {
    field->set_name(WString(text.substr(0, split.name_length)));
    return Splitter(text, split.colon + 1).Run(field);
  }
  const size_t colon = text.find(u':');
  if (colon == WStringView::npos) {
    field->set_name(WString(text));
    field->set_value({});
    field->set_comment({});
    field->ClearParams();
    return rc::kMimeSyntax;
  }
  // A ":" after something that is no field name: the name keeps that text,
  // so the header parser drops the field.
  field->set_name(WString(text.substr(0, colon)));
  return Splitter(text, colon + 1).Run(field);
}

}  // namespace trv

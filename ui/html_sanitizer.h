// Makes an HTML body from a message safe to show: a pure function over the
// markup (no I/O, no toolkit), rebuilt token by token so that what comes out
// is well formed whatever came in.
//
// Removed always:
//  - scripts: <script> with its content, "javascript:", "vbscript:" and
//    "data:" links, CSS "expression(", "behavior" and "-moz-binding";
//  - event handler attributes (every attribute named "on...");
//  - embedded content with its content: <iframe>, <frame>, <frameset>,
//    <object>, <embed>, <applet>, <svg>, <math>, <template>, <textarea>,
//    <select>; the form elements <form>, <input>, <button> as tags;
//  - <head>, <title>, <meta>, <base>, <link> and comments; <html> and
//    <body> as tags (their content stays: it goes into the view's document).
// Remote content (sources starting "http:", "https:", "ftp:" or "//") in
// picture sources (src, background, poster, ...), CSS url(...) and
// @import is removed unless `allow_remote`; sources naming the message's own
// parts ("cid:", "inl:") and "data:image/" pictures stay. Any other source
// (a relative or "file:" one) is removed, since nothing could load it.
//
// Bounds for hostile input, each counted in the report:
//  - elements nested deeper than `max_depth` lose their tags (the text in
//    them stays);
//  - an attribute value longer than `max_attribute` units is dropped;
//  - the output stops, with every open element closed, after
//    `max_output` units or `max_elements` elements; `cut` says so and the
//    caller shows a line saying the rest is not shown.
// Cells, rows, list items and paragraphs left open are closed by the next
// one, as a browser does, so that long tables do not count as deep nesting.
#pragma once

#include <cstddef>
#include <vector>

#include "base/wide_string.h"

namespace trv {

struct HtmlSanitizeOptions {
  bool allow_remote = false;
  size_t max_depth = 200;
  size_t max_attribute = 64 * 1024;
  size_t max_output = 1024 * 1024;  // UTF-16 units of markup
  size_t max_elements = 4000;
};

// What was removed, by kind.
struct HtmlSanitizeReport {
  int scripts = 0;            // script elements, script links and CSS
  int event_handlers = 0;     // "on..." attributes
  int embedded = 0;           // frames, objects, embeds, forms and their controls
  int remote_pictures = 0;    // remote picture sources (removed, or kept when allowed)
  int remote_styles = 0;      // remote style sheets, @import and CSS url(...)
  int long_attributes = 0;    // attributes over max_attribute
  bool depth_cut = false;     // tags past max_depth dropped
  bool cut = false;           // output stopped at max_output or max_elements
  // The remote picture sources met, in order, at most kMaxRemoteSources
  // (what a viewer fetches once the user allows remote content).
  std::vector<WString> remote_sources;
  static constexpr size_t kMaxRemoteSources = 64;

  // Remote content was met (removed unless allowed).
  bool remote() const { return remote_pictures + remote_styles > 0; }
};

WString SanitizeHtml(WStringView html, const HtmlSanitizeOptions& options, HtmlSanitizeReport* report);

}  // namespace trv

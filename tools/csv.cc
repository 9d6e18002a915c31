#include "tools/csv.h"

namespace qopci {

namespace {

constexpr size_t kChunk = 1 << 16;  // bytes read from the stream at a time

}  // namespace

char DetectDelimiter(std::string_view line) {
  char best = ',';
  size_t best_fields = 0;
  for (char d : {',', ';', '\t', '|'}) {
    size_t fields = 1;
    bool quoted = false;  // a doubled quote toggles twice and leaves the state as it was
    for (char c : line) {
      if (c == '"') quoted = !quoted;
      if (c == d && !quoted) ++fields;
    }
    if (fields > best_fields) {
      best = d;
      best_fields = fields;
    }
  }
  return best;
}

std::string DelimiterName(char delimiter) {
  return delimiter == '\t' ? "'\\t'" : "'" + std::string(1, delimiter) + "'";
}

CsvReader::CsvReader(std::istream* in, const CsvOptions& options)
    : in_(in), delimiter_(options.delimiter) {}

bool CsvReader::Fill() {
  if (!*in_) return false;
  if (pos_ == buffer_.size()) {
    buffer_.clear();
    pos_ = 0;
  } else if (pos_ >= kChunk) {
    buffer_.erase(0, pos_);
    pos_ = 0;
  }
  const size_t size = buffer_.size();
  buffer_.resize(size + kChunk);
  in_->read(buffer_.data() + size, kChunk);
  buffer_.resize(size + static_cast<size_t>(in_->gcount()));
  return buffer_.size() > size;
}

void CsvReader::SkipBlanks() {
  while (!AtEnd() && (buffer_[pos_] == ' ' || (buffer_[pos_] == '\t' && delimiter_ != '\t')))
    Take();
}

Status CsvReader::Fail(uint64_t line, const std::string& what) const {
  return Status::Error("line " + std::to_string(line) + ": " + what);
}

Status CsvReader::Next(std::vector<std::string>* fields, bool* done,
                       std::vector<bool>* quoted_out) {
  *done = false;
  auto ensure = [this](size_t n) {
    while (buffer_.size() - pos_ < n && Fill()) {
    }
    return buffer_.size() - pos_ >= n;
  };
  if (!started_ && ensure(3) && buffer_.compare(pos_, 3, "\xEF\xBB\xBF") == 0) {
    pos_ += 3;
    bytes_read_ += 3;
  }
  // Empty lines separate nothing: skip them.
  for (;;) {
    if (AtEnd()) {
      if (in_->bad()) return Fail(line_, "read error");
      *done = true;
      return Status::OK();
    }
    if (buffer_[pos_] == '\r' && ensure(2) && buffer_[pos_ + 1] == '\n') Take();
    if (buffer_[pos_] != '\n') break;
    Take();
    ++line_;
  }
  if (!started_) {
    started_ = true;
    if (delimiter_ == 0) {
      size_t end;
      while ((end = buffer_.find('\n', pos_)) == std::string::npos && Fill()) {
      }
      if (end == std::string::npos) end = buffer_.size();
      delimiter_ = DetectDelimiter(std::string_view(buffer_).substr(pos_, end - pos_));
    }
  }

  record_line_ = line_;
  fields->clear();
  if (quoted_out != nullptr) quoted_out->clear();
  std::string field, rest;
  for (;;) {
    field.clear();
    SkipBlanks();
    const bool quoted = !AtEnd() && buffer_[pos_] == '"';
    if (quoted) {
      const uint64_t opened = line_;
      Take();
      for (;;) {
        if (AtEnd())
          return Fail(opened, "unterminated quoted field " + std::to_string(fields->size() + 1) +
                                  " (it runs to the end of the input)");
        char c = Take();
        if (c == '"') {
          if (AtEnd() || buffer_[pos_] != '"') break;
          Take();
        } else if (c == '\n') {
          ++line_;
        }
        field += c;
      }
    }
    // The unquoted text up to the delimiter or the line end: the field itself, or what
    // follows a closing quote, which may only be blanks.
    std::string& text = quoted ? rest : field;
    text.clear();
    for (;;) {  // a run of bytes at a time: this loop is where a large file's time goes
      const char* begin = buffer_.data() + pos_;
      const char* end = buffer_.data() + buffer_.size();
      const char* p = begin;
      while (p < end && *p != delimiter_ && *p != '\n') ++p;
      text.append(begin, p);
      pos_ += p - begin;
      bytes_read_ += p - begin;
      if (p < end || !Fill()) break;
    }
    if (!text.empty() && text.back() == '\r' && (AtEnd() || buffer_[pos_] == '\n')) text.pop_back();
    while (!text.empty() && (text.back() == ' ' || (text.back() == '\t' && delimiter_ != '\t')))
      text.pop_back();
    if (quoted && !rest.empty())
      return Fail(line_,
                  "text after the closing quote of field " + std::to_string(fields->size() + 1));
    fields->push_back(field);
    if (quoted_out != nullptr) quoted_out->push_back(quoted);
    if (AtEnd()) return in_->bad() ? Fail(line_, "read error") : Status::OK();
    if (Take() == '\n') {
      ++line_;
      return Status::OK();
    }
  }
}

}  // namespace qopci

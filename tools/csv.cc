#include "tools/csv.h"

namespace qopci {

Status SplitCsvLine(const std::string& line, std::vector<std::string>* fields) {
  fields->clear();
  std::string field;
  size_t i = 0;
  for (;;) {
    field.clear();
    bool quoted = i < line.size() && line[i] == '"';
    if (quoted) {
      ++i;
      for (;;) {
        if (i >= line.size()) return Status::Error("unterminated quoted field");
        if (line[i] == '"') {
          if (i + 1 < line.size() && line[i + 1] == '"') {
            field += '"';
            i += 2;
            continue;
          }
          ++i;
          break;
        }
        field += line[i++];
      }
      if (i < line.size() && line[i] != ',')
        return Status::Error("text after the closing quote of field " +
                             std::to_string(fields->size() + 1));
    } else {
      size_t comma = line.find(',', i);
      size_t end = comma == std::string::npos ? line.size() : comma;
      field.assign(line, i, end - i);
      i = end;
    }
    // Unquoted fields lose surrounding blanks; "12.5 " is a number, not a malformed one.
    size_t b = field.find_first_not_of(" \t"), e = field.find_last_not_of(" \t");
    if (quoted)
      fields->push_back(field);
    else
      fields->push_back(b == std::string::npos ? std::string() : field.substr(b, e - b + 1));
    if (i >= line.size()) return Status::OK();
    ++i;  // the comma
  }
}

Status CsvReader::Next(std::vector<std::string>* fields, bool* done) {
  *done = false;
  if (!std::getline(*in_, buffer_)) {
    if (in_->bad()) return Status::Error("line " + std::to_string(line_ + 1) + ": read error");
    *done = true;
    return Status::OK();
  }
  ++line_;
  bytes_read_ += buffer_.size() + (in_->eof() ? 0 : 1);
  if (!buffer_.empty() && buffer_.back() == '\r') buffer_.pop_back();
  Status s = SplitCsvLine(buffer_, fields);
  if (!s.ok()) return Status::Error("line " + std::to_string(line_) + ": " + s.message());
  return Status::OK();
}

}  // namespace qopci

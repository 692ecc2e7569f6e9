// XPathVariables: the library's small ordered table of text keys and values, used for XPath
// variable bindings and for namespace tables (prefix to URI), as in Namespaces::Defaults.
#ifndef VESKAN_XPATHVARIABLES_H
#define VESKAN_XPATHVARIABLES_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <initializer_list>
#include <memory>
#include <vector>

namespace Veskan {

// Entries keep the order in which their keys were first added. Keys compare exactly (code units,
// case-sensitive); a null key or value is stored as the empty text.
//
// Thread safety: a plain value; copy it between threads, guard a shared table yourself.
class VESKAN_API XPathVariables {
 public:
  class VESKAN_API Entry {
   public:
    Entry(const char16_t* key, const char16_t* value);
    StringBuffer Key;
    StringBuffer Value;
  };

  // A process-wide empty table, the default argument of operations that take one.
  static const XPathVariables Empty;

  XPathVariables();
  XPathVariables(const XPathVariables& other);
  // The pairs key, value, key, value, ... up to the first null key or null value:
  //   XPathVariables table(u"id", u"q1", u"lang", u"de", nullptr);
  template <typename... More>
  XPathVariables(const char16_t* key, const char16_t* value, More... more) {
    AddPairs({key, value, more...});
  }
  // A copy of `table` followed by the pairs, as above (SetValue: a key already in `table` keeps
  // its place and takes the new value).
  template <typename... More>
  XPathVariables(const XPathVariables& table, const char16_t* key, const char16_t* value,
                 More... more)
      : XPathVariables(table) {
    AddPairs({key, value, more...});
  }
  XPathVariables& operator=(const XPathVariables& other);
  virtual ~XPathVariables();

  int Count() const { return count_; }

  // Replaces the value of `key` in place, or appends a new entry.
  void SetValue(const char16_t* key, const char16_t* value);
  // A copy of the value of `key`, or of `fallback` (null: empty) when the key is absent.
  StringBuffer GetValue(const char16_t* key, const char16_t* fallback = nullptr) const;
  // The value of `key`, or the empty literal when absent.
  const char16_t* operator[](const char16_t* key) const;
  // The value of `key` for change; appends an entry with an empty value when absent.
  StringBuffer& operator[](const char16_t* key);
  bool Contains(const char16_t* key) const;
  // The key of the first entry whose value is `value` (for a namespace table: a prefix of the
  // URI), or the empty text when `value` is null or empty or nothing matches.
  StringBuffer GetKey(const char16_t* value) const;
  // The entry at `index`, or a shared entry with empty key and value for a bad index.
  const Entry& operator()(int index) const;
  void Clear();

  // This table's entries, then `other`'s by SetValue: on equal keys `other`'s value wins and the
  // key keeps its first position.
  XPathVariables operator+(const XPathVariables& other) const;

 private:
  void AddPairs(std::initializer_list<const char16_t*> texts);
  Entry* Find(const char16_t* key) const;
  void Recount() { count_ = static_cast<int>(entries_.size()); }

  int count_ = 0;
  std::vector<std::unique_ptr<Entry>> entries_;
};

}  // namespace Veskan

#endif

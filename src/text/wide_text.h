// Wide text: ^N formatting, bounded copies, comparison and replacing.
#ifndef QUILLON_TEXT_WIDE_TEXT_H
#define QUILLON_TEXT_WIDE_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

namespace NSTextPackage {

typedef std::u16string CWideString;

// Fills in ^N placeholders (any number of digits) with arguments[N]. A
// placeholder without its argument vanishes; a ^ without a digit stays.
CWideString FormatText(const CWideString& format, int32_t seed,
                       const std::vector<CWideString>& arguments);

// At most `maximum` units, never ending on the high half of a pair.
CWideString TruncateText(const CWideString& text, uint64_t maximum);

// Copies up to `maximum` units and a terminator: `target` holds maximum + 1.
void CopyToFixedBuffer(char16_t* target, const char16_t* source, uint64_t maximum);

enum : uint32_t { kCompareLess = 17014, kCompareGreater = 17015, kCompareEqual = 17016 };

// Comparisons by the user's locale that ignore character width and a
// leading byte order mark; the first ignores case too.
uint32_t CompareTextIgnoreCase(const CWideString& a, const CWideString& b);
uint32_t CompareTextExact(const CWideString& a, const CWideString& b);

// Each unit of the text found in `set` (seven-bit text) becomes `replacement`.
CWideString ReplaceCharacters(const CWideString& text, const std::string& set,
                              char16_t replacement);

}  // namespace NSTextPackage

#endif

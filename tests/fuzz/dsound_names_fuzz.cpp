// The shown name of any description, and the key of any device identity:
// a name is a part of its description, and a key tells every
// identity apart and reads back as the identity it came from.
#include <cstring>
#include <string>

#include "directsound/dsound_family.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_storage.h"

using namespace NSDirectSound;

namespace {

SGuid TakeGuid(Fuzz::CInput& input) {
  SGuid guid;
  guid.data1 = input.U32();
  guid.data2 = input.U16();
  guid.data3 = input.U16();
  for (uint8_t& byte : guid.data4) byte = input.Byte();
  return guid;
}

uint32_t HexAt(const CWideString& text, size_t at, size_t units) {
  uint32_t value = 0;
  for (size_t i = 0; i < units; ++i) {
    const char16_t unit = text[at + i];
    Fuzz::Require((unit >= u'0' && unit <= u'9') || (unit >= u'a' && unit <= u'f'),
                  "a key is lower-case hexadecimal");
    value = value * 16 + static_cast<uint32_t>(unit <= u'9' ? unit - u'0' : unit - u'a' + 10);
  }
  return value;
}

// "Ferrand DirectSound 8-8-8-8" back into the identity.
SGuid FromKey(const CWideString& key) {
  const CWideString prefix = u"Ferrand DirectSound ";
  Fuzz::Require(key.size() == prefix.size() + 35 && key.compare(0, prefix.size(), prefix) == 0,
                "a key has its fixed shape");
  const size_t at = prefix.size();
  for (size_t dash : {at + 8, at + 17, at + 26}) Fuzz::Require(key[dash] == u'-', "dashes apart");
  SGuid guid;
  guid.data1 = HexAt(key, at, 8);
  guid.data2 = static_cast<uint16_t>(HexAt(key, at + 9, 4));
  guid.data3 = static_cast<uint16_t>(HexAt(key, at + 13, 4));
  for (size_t i = 0; i < 4; ++i) {
    guid.data4[i] = static_cast<uint8_t>(HexAt(key, at + 18 + 2 * i, 2));
    guid.data4[i + 4] = static_cast<uint8_t>(HexAt(key, at + 27 + 2 * i, 2));
  }
  return guid;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::CStorageScope storage;
  Fuzz::CInput input(data, size);
  const CWideString description = input.Wide(200);
  const CWideString shown = CleanDisplayName(description);
  // "()x" cleans to nothing, as the rule has it; only nothing cleans from nothing.
  Fuzz::Require(!description.empty() || shown.empty(), "nothing comes from nothing");
  Fuzz::Require(description.find(shown) != CWideString::npos, "a name is part of its description");

  CWideString text = input.Wide(40);
  const CWideString affix = input.Wide(8);
  const CWideString before = text;
  if (StripLeadingText(text, affix)) Fuzz::Require(affix + text == before, "only the prefix goes");
  text = before;
  if (StripTrailingText(text, affix)) {
    Fuzz::Require(before.compare(0, text.size(), text) == 0 &&
                      before.size() == text.size() + affix.size() + 1,
                  "only the suffix and one unit go");
  }

  const SGuid first = TakeGuid(input);
  const SGuid second = TakeGuid(input);
  const CWideString firstKey = MakeDirectSoundDriverName(&first);
  Fuzz::Require(FromKey(firstKey) == first, "a key reads back as its identity");
  Fuzz::Require((MakeDirectSoundDriverName(&second) == firstKey) == (first == second),
                "a key tells identities apart");
  Fuzz::Require(MakeDirectSoundDriverName(nullptr) != firstKey, "the default has its own key");
  return 0;
}

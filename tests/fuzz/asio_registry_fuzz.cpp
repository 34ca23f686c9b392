// The driver list scanned from any registry: keys and values of any name,
// text and type, and any registry or COM call failing any number of times.
// The scan leaves out what does not hold up, keeps names within their
// limit, and leaves no key open and no string alive.
#include <string>
#include <vector>

#include "asio/asio_driver_list.h"
#include "fakes/fake_asio.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_storage.h"

using namespace NSASIO;

namespace {

std::u16string ClsidText(Fuzz::CInput& input) {
  const uint8_t kind = input.Byte();
  if (kind < 200) return Fakes::FakeClsidText(kind);
  return input.Wide(40);
}

void Build(Fakes::CFakeASIOPlatform& platform, Fuzz::CInput& input) {
  const uint8_t steps = input.Byte() % 10;
  for (uint8_t i = 0; i < steps && !input.Empty(); ++i) {
    const uint8_t step = input.Byte();
    switch (step % 4) {
      case 0: {
        const std::u16string key = input.Wide(40);
        const std::u16string clsid = ClsidText(input);
        platform.AddDriver(key, clsid, input.Wide(60), step & 4, step & 8);
        break;
      }
      case 1:
        platform.AddKeyWithoutClsid(input.Wide(40));
        break;
      case 2: {
        const RegistryKey root = (step & 4) ? kClassesRoot : kLocalMachine;
        const std::u16string path = (step & 8) ? u"software\\asio\\" + input.Wide(20)
                                               : u"clsid\\" + ClsidText(input) + u"\\InprocServer32";
        const std::u16string name = (step & 16) ? input.Wide(12) : u"description";
        const std::u16string text = input.Wide(300);
        platform.SetValue(root, path, name, text, (step & 32) ? input.U32() : kRegistryValueText);
        break;
      }
      default: {
        // Any failure but 0, which would be a success that gives nothing.
        const auto call = static_cast<Fakes::EASIOPlatformCall>(input.Byte() % Fakes::kPlatformCallCount);
        const int32_t result = static_cast<int32_t>(input.U32());
        platform.Fail(call, result == 0 ? 2 : result, static_cast<int32_t>(input.Byte() % 4) - 1);
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::CStorageScope storage;
  Fuzz::CInput input(data, size);
  {
    Fakes::CFakeASIOPlatform platform;
    Build(platform, input);
    try {
      CASIODriverList list(platform);
      std::vector<CWideString> names;
      const int32_t count = list.GetDriverNames(names, kMaxDriverNames);
      Fuzz::Require(count == list.NumDrivers() && names.size() == static_cast<size_t>(count),
                    "every listed driver has a name");
      for (const CWideString& name : names) {
        Fuzz::Require(name.size() < kDriverNameUnits, "a name keeps within its limit");
        SGuid clsid = {};
        list.FindClsid(name, clsid);
      }
      CWideString cut;
      list.GetDriverNameAt(static_cast<int32_t>(input.Byte()) - 2, cut, input.Byte() % 40);
    } catch (const std::exception&) {
      // A scan may give up; it must still have closed what it opened.
    }
    Fuzz::Require(platform.OpenKeys() == 0, "the scan leaves no key open");
    Fuzz::Require(platform.LiveStrings() == 0, "the scan frees every string");
  }
  return 0;
}

// The version the shipping library says of itself: a version resource in
// the DLL, the shared object's name natively.
#if defined(_WIN32)
#include <windows.h>
#endif

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

#if defined(_WIN32)

std::wstring StringValue(const std::vector<char>& data, const wchar_t* name) {
  void* value = nullptr;
  UINT length = 0;
  const std::wstring path = std::wstring(L"\\StringFileInfo\\040904b0\\") + name;
  if (!VerQueryValueW(data.data(), path.c_str(), &value, &length) || value == nullptr) return L"";
  return std::wstring(static_cast<const wchar_t*>(value));
}

TEST(VersionTest, TheDllCarriesItsVersionResource) {
  DWORD handle = 0;
  const DWORD size = GetFileVersionInfoSizeW(L"" QUILLON_LIBRARY_PATH_WIDE, &handle);
  ASSERT_GT(size, 0u) << "no version resource in Quillon.dll";
  std::vector<char> data(size);
  ASSERT_TRUE(GetFileVersionInfoW(L"" QUILLON_LIBRARY_PATH_WIDE, 0, size, data.data()));
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT length = 0;
  ASSERT_TRUE(VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
  ASSERT_NE(fixed, nullptr);
  EXPECT_EQ(fixed->dwSignature, 0xFEEF04BDu);
  EXPECT_EQ(HIWORD(fixed->dwFileVersionMS), QUILLON_VERSION_MAJOR);
  EXPECT_EQ(LOWORD(fixed->dwFileVersionMS), QUILLON_VERSION_MINOR);
  EXPECT_EQ(HIWORD(fixed->dwFileVersionLS), QUILLON_VERSION_PATCH);
  EXPECT_EQ(fixed->dwProductVersionMS, fixed->dwFileVersionMS);
  EXPECT_EQ(fixed->dwProductVersionLS, fixed->dwFileVersionLS);
  EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));
  EXPECT_EQ(StringValue(data, L"ProductName"), L"Quillon");
  EXPECT_EQ(StringValue(data, L"FileVersion"), L"" QUILLON_VERSION_TEXT_WIDE);
  EXPECT_EQ(StringValue(data, L"ProductVersion"), L"" QUILLON_VERSION_TEXT_WIDE);
  EXPECT_EQ(StringValue(data, L"OriginalFilename"), L"Quillon.dll");
  EXPECT_FALSE(StringValue(data, L"FileDescription").empty());
  EXPECT_NE(StringValue(data, L"LegalCopyright").find(L"Copyright"), std::wstring::npos);
}

#else

// The shared object is found by its major version.
TEST(VersionTest, TheSharedObjectIsNamedByItsMajorVersion) {
  const std::string path = QUILLON_LIBRARY_PATH;
  const std::string expected =
      "libquillon.so." + std::to_string(QUILLON_VERSION_MAJOR) + "." +
      std::to_string(QUILLON_VERSION_MINOR) + "." + std::to_string(QUILLON_VERSION_PATCH);
  EXPECT_EQ(path.substr(path.rfind('/') + 1), expected);
}

#endif

}  // namespace

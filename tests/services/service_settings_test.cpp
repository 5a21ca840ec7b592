// Settings of a service: defaults, garbage, old plain passwords, the cipher,
// the saved file, the port rules and the account operations.
#include <gtest/gtest.h>

#include "services/password_cipher.h"
#include "services/pop3_service.h"
#include "services/imap4_service.h"
#include "services/port_rules.h"
#include "tests/services/service_fixture.h"

namespace trv {
namespace {

const Guid kGuid = *Guid::Parse(std::string_view("{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B}"));
const std::string kSection = "Service.{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}";

TEST(PasswordCipherTest, KnownAnswersAndPortRules) {
  std::string text = "Plaintext";
  Rc4(std::span(reinterpret_cast<const uint8_t*>("Key"), 3), std::span(reinterpret_cast<uint8_t*>(text.data()), 9));
  EXPECT_EQ(text, "\xBB\xF3\x16\xE8\xD9\x40\xAF\x0A\xD3");
  // SHA-1 over "Work" as UTF-16LE and the GUID bytes; MD5 over the host and 587 little-endian.
  const PasswordKey k = MakePasswordKey(u"Work", kGuid, "smtp.example.org", 587);
  EXPECT_EQ(EncipherPassword("secret", k), (std::vector<uint8_t>{0x13, 0x0A, 0xC2, 0xAC, 0xB9, 0xF2}));
  EXPECT_EQ(DecipherPassword(EncipherPassword("pässwörd", k), k), "pässwörd");

  using P = MailProtocol;
  enum Step { kOn, kOff, kOptions };
  const struct { P protocol; Step step; bool ssl_explicit; int32_t in, out; } cases[] = {
      {P::kSmtp, kOn, false, 25, 465},      {P::kSmtp, kOn, true, 25, 25},          {P::kPop3, kOn, false, 110, 995},
      {P::kImap4, kOn, false, 143, 993},    {P::kImap4, kOn, false, 1143, 1143},    {P::kSmtp, kOff, false, 465, 25},
      {P::kPop3, kOff, true, 995, 110},     {P::kImap4, kOff, false, 143, 143},     {P::kSmtp, kOptions, true, 465, 25},
      {P::kSmtp, kOptions, false, 25, 465}, {P::kImap4, kOptions, true, 993, 143},  {P::kImap4, kOptions, false, 995, 995},
      {P::kPop3, kOptions, true, 2110, 2110},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.step == kOptions ? PortAfterSslOptions(c.protocol, c.ssl_explicit, c.in)
                                 : PortAfterSslToggle(c.protocol, c.step == kOn, c.ssl_explicit, c.in),
              c.out)
        << static_cast<int>(c.protocol) << " step " << c.step << " port " << c.in;
  }
}

using ServiceSettingsTest = test::ServiceEngineTest;

TEST_F(ServiceSettingsTest, LoadDefaultsGarbageAndOldPasswords) {
  Imap4Service service(*engine_, local());
  // Loads `keys` as the whole section; the result, and the section as Save writes it back.
  const auto load = [&](const std::string& keys) {
    Settings st;
    st.LoadFromBytes("\n[" + kSection + "]\n" + keys);
    EXPECT_EQ(service.Load(st, kGuid), rc::kOk) << keys;
    EXPECT_EQ(service.Save(), rc::kOk);
    return engine_->settings().SaveToBytes();
  };
  EXPECT_EQ(MailService::SectionName(kGuid), kSection);
  Settings empty;
  EXPECT_EQ(service.Load(empty, kGuid), rc::kFail);
  const std::string defaults = load("IMAP4RootPath=\r\n");
  EXPECT_EQ(service.settings().incoming.port, 110);
  EXPECT_NE(defaults.find("\nIMAP4Port=110\r\nStoreIMAP4Password=false\r\nIMAP4RootPath="), std::string::npos);
  EXPECT_NE(defaults.find("\nSMTPSocksPort=1028\r\n"), std::string::npos);
  // Wrong types and out-of-range numbers load as the defaults.
  EXPECT_EQ(load("SMTPPort=abc\r\nLoadBodySize=x\r\nSynchronize=maybe\r\nSMTPTimeout=0\r\nIMAP4Port=70000\r\n"
                 "SyncMinutes=-5\r\nSMTPAuthentication=9\r\nIMAP4SocksVersion=7\r\nLoadMaxSize=-1\r\n"
                 "SMTPSocksPort=\r\nDeleteOnServer=584D\r\n"),
            defaults);
  // Store...Password = 0 hides the keys; a plain password of an older file wins over the enciphered one.
  load("StoreSMTPPassword=0\r\nSMTPUserName=u\r\nSMTPPassword=p\r\n"
       "StoreIMAP4Password=1\r\nIMAP4Password=plain\r\nIMAP4Psswd=584D0102\r\n");
  EXPECT_EQ(service.settings().smtp.user_name + service.settings().smtp.password, "");
  EXPECT_EQ(service.settings().incoming.password, "plain");
  ASSERT_EQ(service.Load(engine_->settings(), kGuid), rc::kOk);
  EXPECT_EQ(service.settings().incoming.password, "plain");  // now from IMAP4Psswd
  EXPECT_EQ(engine_->settings().ReadString(kSection, "IMAP4Password", "gone"), "gone");
}

TEST_F(ServiceSettingsTest, SavedFileAndUnreadablePasswords) {
  ServiceSettings in;
  in.guid = kGuid;
  in.service_name = u"Work";
  in.smtp.host = "smtp.example.org";
  in.smtp.store_password = in.incoming.store_password = true;
  in.smtp.user_name = "me";
  in.smtp.password = "smtp-secret";
  in.incoming.password = "pop-secret";
  ASSERT_EQ(CreateService(*engine_, "POP3", in, nullptr), rc::kOk);
  const std::string file = test::ReadFile(dir_ / "Settings.ini");
  EXPECT_EQ(file.find("secret"), std::string::npos);
  EXPECT_NE(file.find("\nSMTPPsswd=584D"), std::string::npos);
  Restart();
  MailService* loaded = FindService(*engine_, "work");  // by name, any case
  ASSERT_NE(loaded, nullptr);
  const ServiceSettings good = loaded->settings();
  EXPECT_EQ(good.smtp.user_name + good.smtp.password + good.incoming.password, "mesmtp-secretpop-secret");
  EXPECT_EQ(good.signature, u"");  // an empty Unicode text stays empty
  // Renaming, or a changed host or port, makes the stored password unreadable.
  for (const char* change : {"ServiceName", "SMTPHost", "SMTPPort"}) {
    Settings& st = engine_->settings();
    loaded->SetSettings(good);
    ASSERT_EQ(loaded->Save(), rc::kOk);
    ASSERT_EQ(std::string(change) == "SMTPPort" ? st.WriteInteger(kSection, change, 587)
                                                : st.WriteWideString(kSection, change, u"smtp2"), rc::kOk);
    ASSERT_EQ(loaded->Load(st, kGuid), rc::kOk);
    EXPECT_EQ(loaded->settings().smtp.user_name + "/" + loaded->settings().smtp.password, "me/") << change;
  }
}

TEST_F(ServiceSettingsTest, CreateFindAndRemove) {
  ServiceSettings a, b;
  a.service_name = u"Work";
  a.email_address = u"me@work.example";
  b.service_name = u"Home";
  MailService *work = nullptr, *home = nullptr;
  ASSERT_EQ(CreateService(*engine_, "IMAP4", a, &work), rc::kOk);
  ASSERT_EQ(CreateService(*engine_, "POP3", b, &home), rc::kOk);
  EXPECT_EQ(CreateService(*engine_, "SMTP", b, nullptr), rc::kInvalidArg);
  EXPECT_EQ(FindService(*engine_, "ME@work.example"), work);
  EXPECT_EQ(FindService(*engine_, "HOME"), home);
  EXPECT_EQ(FindService(*engine_, "nobody"), nullptr);
  const std::filesystem::path home_index = home->storage().index_path();
  const auto deleted_record = home->storage().SpecialFolder(kFolderInbox)->file_path().string() + ".deleted";
  test::WriteFile(deleted_record, "45000 uid-1\n");
  ASSERT_EQ(RemoveService(*engine_, home, true), rc::kOk);
  EXPECT_FALSE(std::filesystem::exists(home_index) || std::filesystem::exists(deleted_record));
  EXPECT_EQ(MailServices(*engine_), std::vector<MailService*>{work});
  EXPECT_EQ(engine_->storages().size(), 2u);
  EXPECT_EQ(engine_->settings().ListSections("\\").size(), 1u);
}

}  // namespace
}  // namespace trv

// Settings of a service: defaults, old plain passwords, the cipher, garbage
// values, the saved file, and the account operations.
#include <gtest/gtest.h>

#include <functional>

#include "services/imap4_service.h"
#include "services/password_cipher.h"
#include "services/pop3_service.h"
#include "services/port_rules.h"
#include "tests/services/service_fixture.h"

namespace trv {
namespace {

using test::ServiceEngineTest;

const Guid kGuid = *Guid::Parse(std::string_view("{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B}"));
const std::string kSection = "Service.{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}";

TEST(PasswordCipherTest, KnownAnswers) {
  std::string text = "Plaintext";
  const std::string key = "Key";
  Rc4(std::span(reinterpret_cast<const uint8_t*>(key.data()), key.size()),
      std::span(reinterpret_cast<uint8_t*>(text.data()), text.size()));
  EXPECT_EQ(text, "\xBB\xF3\x16\xE8\xD9\x40\xAF\x0A\xD3");
  // SHA-1 over "Work" in UTF-16LE and the GUID bytes, MD5 over the host and port 587 (LE).
  const PasswordKey k = MakePasswordKey(u"Work", kGuid, "smtp.example.org", 587);
  EXPECT_EQ(EncipherPassword("secret", k), (std::vector<uint8_t>{0x13, 0x0A, 0xC2, 0xAC, 0xB9, 0xF2}));
  EXPECT_EQ(DecipherPassword(EncipherPassword("pässwörd", k), k), "pässwörd");
}

TEST(PortRulesTest, EditorRules) {
  using P = MailProtocol;
  enum Step { kTickOn, kTickOff, kOptions };
  struct Case { P protocol; Step step; bool ssl_explicit; int32_t in, out; };
  const Case cases[] = {
      {P::kSmtp, kTickOn, false, 25, 465},   {P::kSmtp, kTickOn, true, 25, 25},
      {P::kPop3, kTickOn, false, 110, 995},  {P::kImap4, kTickOn, false, 143, 993},
      {P::kImap4, kTickOn, false, 1143, 1143}, {P::kSmtp, kTickOff, false, 465, 25},
      {P::kPop3, kTickOff, true, 995, 110},  {P::kImap4, kTickOff, false, 143, 143},
      {P::kSmtp, kOptions, true, 465, 25},   {P::kSmtp, kOptions, false, 25, 465},
      {P::kPop3, kOptions, false, 110, 995}, {P::kImap4, kOptions, true, 993, 143},
      {P::kImap4, kOptions, false, 995, 995}, {P::kPop3, kOptions, true, 2110, 2110},
  };
  for (const Case& c : cases) {
    const int32_t got = c.step == kOptions ? PortAfterSslOptions(c.protocol, c.ssl_explicit, c.in)
                                           : PortAfterSslToggle(c.protocol, c.step == kTickOn, c.ssl_explicit, c.in);
    EXPECT_EQ(got, c.out) << static_cast<int>(c.protocol) << " step " << c.step << " port " << c.in;
  }
}

class ServiceSettingsTest : public ServiceEngineTest {
 protected:
  // Loads the keys that `write` puts into a fresh section, as a service of `cls`.
  ServiceSettings LoadWith(const char* cls, const std::function<void(Settings&)>& write, Result* r = nullptr) {
    Settings& st = engine_->settings();
    st.DeleteSection(kSection).Ignore();  // a fresh section each time
    if (write) write(st);
    std::unique_ptr<MailService> s;
    if (std::string(cls) == "IMAP4") s = std::make_unique<Imap4Service>(*engine_, local());
    else s = std::make_unique<Pop3Service>(*engine_, local());
    const Result loaded = s->Load(st, kGuid);
    if (r != nullptr) *r = loaded;
    return s->settings();
  }
};

TEST_F(ServiceSettingsTest, LoadEdgeCasesAndGarbage) {
  EXPECT_EQ(MailService::SectionName(kGuid), kSection);
  Result missing;
  LoadWith("POP3", nullptr, &missing);
  EXPECT_EQ(missing, rc::kFail);

  ServiceSettings s = LoadWith("IMAP4", [](Settings& st) { st.WriteString(kSection, "IMAP4Host", "h").Ignore(); });
  EXPECT_EQ(s.incoming.port, 110);
  EXPECT_EQ(s.smtp.port, 25);
  EXPECT_EQ(s.smtp.socks_port, 1028);
  EXPECT_EQ(s.load_body_size, 2048);
  EXPECT_TRUE(s.incoming.ssl_explicit && s.synchronize && s.dont_add_signature_to_replies);

  s = LoadWith("POP3", [](Settings& st) {
    st.WriteBoolean(kSection, "StoreSMTPPassword", false).Ignore();
    st.WriteString(kSection, "SMTPUserName", "u").Ignore();
    st.WriteString(kSection, "SMTPPassword", "p").Ignore();
    st.WriteBoolean(kSection, "StorePOP3Password", true).Ignore();
    st.WriteString(kSection, "POP3Password", "plain").Ignore();
    st.WriteBinary(kSection, "POP3Psswd", std::vector<uint8_t>{1, 2, 3}).Ignore();
  });
  EXPECT_EQ(s.smtp.user_name + s.smtp.password, "");
  EXPECT_EQ(s.incoming.password, "plain");

  // Wrong types and out-of-range numbers load as the defaults.
  s = LoadWith("POP3", [](Settings& st) {
    for (const char* key : {"SMTPPort", "LoadBodySize", "Synchronize", "SMTPTimeout"}) {
      st.WriteString(kSection, key, "garbage\x01").Ignore();
    }
    st.WriteInteger(kSection, "POP3Port", 70000).Ignore();
    st.WriteInteger(kSection, "SyncMinutes", -5).Ignore();
    st.WriteInteger(kSection, "SMTPAuthentication", 9).Ignore();
    st.WriteInteger(kSection, "POP3SocksVersion", 7).Ignore();
    st.WriteInteger(kSection, "LoadMaxSize", -1).Ignore();
    st.WriteBinary(kSection, "ServiceName", std::vector<uint8_t>{0xFF}).Ignore();
    st.WriteBoolean(kSection, "StorePOP3Password", true).Ignore();
    st.WriteString(kSection, "POP3Psswd", "not binary").Ignore();
  });
  EXPECT_EQ(s.smtp.port, 25);
  EXPECT_EQ(s.load_body_size, 2048);
  EXPECT_TRUE(s.synchronize);
  EXPECT_EQ(s.smtp.timeout, 60);
  EXPECT_EQ(s.incoming.port, 110);
  EXPECT_EQ(s.sync_minutes, 0);
  EXPECT_EQ(s.smtp_authentication, SmtpAuthMode::kNotRequired);
  EXPECT_EQ(s.incoming.socks_version, 0u);
  EXPECT_EQ(s.load_max_size, 2147483647);
  EXPECT_EQ(s.incoming.password, "");
}

TEST_F(ServiceSettingsTest, SaveEnciphersMigratesAndNeverWritesPlainPasswords) {
  ServiceSettings in;
  in.guid = kGuid;
  in.service_name = u"Work";
  in.smtp.host = "smtp.example.org";
  in.smtp.store_password = true;
  in.smtp.user_name = "me";
  in.smtp.password = "old-plain-secret";
  in.incoming.host = "pop.example.org";
  in.incoming.store_password = true;
  in.incoming.password = "pop-secret";
  MailService* service = nullptr;
  ASSERT_EQ(CreateService(*engine_, "POP3", in, &service), rc::kOk);
  // An older file's plain key wins over the enciphered one, and goes at the next save.
  ASSERT_EQ(engine_->settings().WriteString(kSection, "SMTPPassword", "from-old-file"), rc::kOk);
  ASSERT_EQ(service->Load(engine_->settings(), kGuid), rc::kOk);
  EXPECT_EQ(service->settings().smtp.password, "from-old-file");
  ASSERT_EQ(service->Save(), rc::kOk);

  const std::string file = File("Settings.ini");
  for (const char* absent : {"secret", "from-old-file", "\nSMTPPassword=", "\nPOP3Password="}) {
    EXPECT_EQ(file.find(absent), std::string::npos) << absent;
  }
  size_t at = file.find("[" + kSection + "]");
  ASSERT_NE(at, std::string::npos);
  for (const char* key : {"Synchronize=", "Class=", "GUID=", "Storage=", "ServiceName=", "Connection=", "SMTPHost=",
                          "SMTPAuthentication=", "SMTPUserName=", "SMTPPsswd=584D", "SMTPSSLStrongEncryption=",
                          "POP3Host=", "POP3Psswd=584D", "POP3SSLStrongEncryption="}) {
    const size_t next = file.find(key, at);
    EXPECT_NE(next, std::string::npos) << key << " missing or out of order";
    if (next != std::string::npos) at = next;
  }

  Restart();
  MailService* loaded = FindService(*engine_, "work");
  ASSERT_NE(loaded, nullptr);
  EXPECT_EQ(loaded->settings().smtp.password, "from-old-file");
  EXPECT_EQ(loaded->settings().incoming.password, "pop-secret");
  EXPECT_EQ(loaded->settings().smtp.user_name, "me");
  EXPECT_EQ(loaded->settings().signature, u"");  // an empty Unicode text stays empty

  // Renaming, or a changed host or port, makes the stored password unreadable.
  struct Change { const char* key; std::function<void(Settings&)> write; };
  const Change changes[] = {
      {"ServiceName", [](Settings& st) { st.WriteWideString(kSection, "ServiceName", u"Work2").Ignore(); }},
      {"SMTPHost", [](Settings& st) { st.WriteString(kSection, "SMTPHost", "smtp2.example.org").Ignore(); }},
      {"SMTPPort", [](Settings& st) { st.WriteInteger(kSection, "SMTPPort", 587).Ignore(); }},
  };
  const ServiceSettings good = loaded->settings();
  for (const Change& c : changes) {
    Settings& st = engine_->settings();
    loaded->SetSettings(good);
    ASSERT_EQ(loaded->Save(), rc::kOk);
    c.write(st);
    ASSERT_EQ(loaded->Load(st, kGuid), rc::kOk);
    EXPECT_EQ(loaded->settings().smtp.password, "") << c.key;
    EXPECT_EQ(loaded->settings().smtp.user_name, "me") << c.key;
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
  EXPECT_NE(work->settings().storage_guid, home->settings().storage_guid);
  const std::filesystem::path home_index = home->storage().index_path();
  ASSERT_EQ(RemoveService(*engine_, home, true), rc::kOk);
  EXPECT_FALSE(std::filesystem::exists(home_index));

  Restart();
  const std::vector<MailService*> left = MailServices(*engine_);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_STREQ(left[0]->ServiceClass(), "IMAP4");
  EXPECT_EQ(WideToUtf8(left[0]->storage().name()), "Work");
  EXPECT_EQ(engine_->storages().size(), 2u);
}

}  // namespace
}  // namespace trv

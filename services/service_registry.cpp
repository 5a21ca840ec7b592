#include "services/service_registry.h"

#include "core/engine.h"
#include "services/deleted_uids.h"
#include "services/imap4_service.h"
#include "services/pop3_service.h"
#include "services/run_trust.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv {

namespace {

std::unique_ptr<MailService> MakeService(WStringView service_class, MailEngine& engine, Storage& storage) {
  if (EqualsNoCase(service_class, u"POP3")) return std::make_unique<Pop3Service>(engine, storage);
  if (EqualsNoCase(service_class, u"IMAP4")) return std::make_unique<Imap4Service>(engine, storage);
  return nullptr;
}

// The one service whose field (by `get`) equals `name`; null when none or several do.
template <typename Get>
MailService* FindUnique(const std::vector<MailService*>& services, const WString& name, Get get) {
  MailService* found = nullptr;
  for (MailService* service : services) {
    const WString value = get(service->settings());
    if (value.empty() || !EqualsNoCase(value, name)) continue;
    if (found != nullptr) return nullptr;
    found = service;
  }
  return found;
}

}  // namespace

void InstallServiceFactory(MailEngine& engine) {
  // The factory holds the engine's one RunTrust: the engine destroys its
  // listener lists and its services before its factory, so the trust outlives
  // both its registration and every run that decides with it.
  auto trust = std::make_shared<RunTrust>(engine);
  engine.service_added_listeners().Add(trust.get());
  engine.SetServiceFactory([trust](WStringView service_class, MailEngine& e, Storage& storage) {
    return std::unique_ptr<EngineService>(MakeService(service_class, e, storage));
  });
}

Result CreateService(MailEngine& engine, std::string_view service_class, const ServiceSettings& settings,
                     MailService** created) {
  ServiceSettings s = settings;
  if (s.guid.IsNil()) s.guid = Guid::NewRandom();
  if (engine.settings().HasSection(MailService::SectionName(s.guid))) return rc::kFileExists;
  const WString class_name = Utf8ToWide(service_class);
  if (!EqualsNoCase(class_name, u"POP3") && !EqualsNoCase(class_name, u"IMAP4")) return rc::kInvalidArg;

  Storage* storage = nullptr;
  const WString& storage_name = s.service_name.empty() ? s.email_address : s.service_name;
  if (const Result r = engine.CreateServiceStorage(storage_name, &storage); r.failed()) return r;
  std::unique_ptr<MailService> service = MakeService(class_name, engine, *storage);
  s.storage_guid = storage->id();
  service->SetSettings(s);
  Result r = service->Initialize();
  if (r.ok()) r = service->Save();
  // Read back: the service holds what the file says (out-of-range values saved as defaults).
  if (r.ok()) r = service->Load(engine.settings(), s.guid);
  if (r.ok()) r = storage->AddService(service.get());
  if (r.failed()) {
    engine.settings().DeleteSection(MailService::SectionName(s.guid)).Ignore();  // may not have been made
    engine.DeleteStorage(storage).Ignore();  // best effort: the failure that matters is r
    return r;
  }
  if (created != nullptr) *created = service.get();
  engine.AddService(std::move(service));
  return rc::kOk;
}

std::vector<MailService*> MailServices(MailEngine& engine) {
  std::vector<MailService*> out;
  for (EngineService* service : engine.services()) {
    if (auto* mail = dynamic_cast<MailService*>(service)) out.push_back(mail);
  }
  return out;
}

MailService* FindService(MailEngine& engine, std::string_view name) {
  const std::vector<MailService*> services = MailServices(engine);
  const WString wanted = Utf8ToWide(name);
  const auto by_name = [](const ServiceSettings& s) { return s.service_name; };
  const auto by_address = [](const ServiceSettings& s) { return s.email_address; };
  for (MailService* service : services) {
    if (EqualsNoCase(service->settings().service_name, wanted)) return FindUnique(services, wanted, by_name);
  }
  return FindUnique(services, wanted, by_address);
}

Result RemoveService(MailEngine& engine, MailService* service, bool delete_storage) {
  service->Stop(true);
  service->WaitIdle();
  Storage* storage = &service->storage();
  Result r = service->Delete();  // deletes the service
  if (r.failed() || !delete_storage) return r;
  // The runs' records of locally deleted messages lie next to the folder files.
  FileSystem& fs = engine.FileOps();
  std::vector<std::pair<std::filesystem::path, std::filesystem::path>> records;  // folder file, record
  storage->ForEachFolder([&](MailFolder& folder) {
    if (folder.file_path().empty()) return;
    records.emplace_back(folder.file_path(), DeletedUids(fs, folder.file_path()).path());
    records.emplace_back(folder.file_path(), DeletedUids(fs, folder.file_path(), kImap4DeletedSuffix).path());
  });
  r = engine.DeleteStorage(storage);
  for (const auto& [folder_file, record] : records) {
    if (fs.Exists(folder_file) || !fs.Exists(record)) continue;  // its folder file stays (or none to remove)
    if (const Result removed = fs.RemoveFile(record); removed.failed() && r.ok()) r = removed;
  }
  return r;
}

}  // namespace trv

#include "app/gui/drag_data.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QIODevice>

namespace trv::gui {

namespace {

QByteArray Encode(const MailFolder* folder, const std::vector<uint32_t>& keys) {
  QByteArray bytes;
  QDataStream out(&bytes, QIODevice::WriteOnly);
  out << QCoreApplication::applicationPid() << quint64(reinterpret_cast<quintptr>(folder))
      << quint32(keys.size());
  for (uint32_t key : keys) out << quint32(key);
  return bytes;
}

bool Decode(const QByteArray& bytes, MailFolder** folder, std::vector<uint32_t>* keys) {
  QDataStream in(bytes);
  qint64 pid = 0;
  quint64 address = 0;
  quint32 count = 0;
  in >> pid >> address >> count;
  if (in.status() != QDataStream::Ok || pid != QCoreApplication::applicationPid() || address == 0) return false;
  keys->clear();
  for (quint32 i = 0; i < count && in.status() == QDataStream::Ok; ++i) {
    quint32 key = 0;
    in >> key;
    keys->push_back(key);
  }
  *folder = reinterpret_cast<MailFolder*>(static_cast<quintptr>(address));
  return in.status() == QDataStream::Ok;
}

}  // namespace

QMimeData* MessagesMimeData(const MailFolder* folder, const std::vector<uint32_t>& keys) {
  auto* data = new QMimeData;
  data->setData(kMessagesMimeType, Encode(folder, keys));
  return data;
}

QMimeData* FolderMimeData(const MailFolder* folder) {
  auto* data = new QMimeData;
  data->setData(kFolderMimeType, Encode(folder, {}));
  return data;
}

bool ReadMessagesMimeData(const QMimeData& data, MailFolder** folder, std::vector<uint32_t>* keys) {
  return data.hasFormat(kMessagesMimeType) && Decode(data.data(kMessagesMimeType), folder, keys) && !keys->empty();
}

bool ReadFolderMimeData(const QMimeData& data, MailFolder** folder) {
  std::vector<uint32_t> keys;
  return data.hasFormat(kFolderMimeType) && Decode(data.data(kFolderMimeType), folder, &keys);
}

}  // namespace trv::gui

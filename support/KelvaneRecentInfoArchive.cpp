// SPDX-License-Identifier: Apache-2.0
// The record of recent answers as an archive.
#include <array>

#include "platform/Archive.h"
#include "support/KelvaneRecentInfo.h"

namespace kelvane {

namespace {

// Each class's fields, and their places.
constexpr std::array<std::string_view, 1> infoFields = {"volumes"};
constexpr std::size_t volumesField = 0;
constexpr std::array<std::string_view, 4> volumeFields = {"freespace", "services", "timestamp", "volumeName"};
constexpr std::size_t freespaceField = 0;
constexpr std::size_t servicesField = 1;
constexpr std::size_t volumeTimestampField = 2;
constexpr std::size_t volumeNameField = 3;
constexpr std::array<std::string_view, 2> serviceFields = {"amount", "timestamp"};
constexpr std::size_t amountField = 0;
constexpr std::size_t serviceTimestampField = 1;

constexpr std::array classes = {archive::Class{"KelvaneRecentInfo", 1, infoFields},
                                archive::Class{"KelvaneRecentVolumeInfo", 1, volumeFields},
                                archive::Class{"KelvaneRecentServiceInfo", 1, serviceFields}};
constexpr const archive::Class& infoClass = classes[0];
constexpr const archive::Class& volumeClass = classes[1];
constexpr const archive::Class& serviceClass = classes[2];

/// A dictionary of objects of one class; absent when it is null.
template <typename Entries>
void write(archive::Writer& writer, const Entries* entries, const archive::Class& type, const auto& writeFields) {
  if (entries == nullptr) {
    writer.value({});
    return;
  }
  writer.objects(entries->size());
  for (const auto& [key, entry] : *entries) {
    writer.key(key);
    writer.object(type);
    writeFields(entry);
  }
}

/// Reads what write() wrote into entries; false for objects of another class. A value in their place is as if there
/// were none.
template <typename Entries>
bool read(const archive::Objects* objects, const archive::Class& type, std::optional<Entries>& entries,
          const auto& readFields) {
  if (objects == nullptr) {
    return true;
  }
  entries.emplace();
  for (const auto& [key, object] : *objects) {
    auto entry = &object.type() == &type ? readFields(object) : std::nullopt;
    if (!entry) {
      return false;
    }
    entries->emplace_hint(entries->end(), key, *std::move(entry));
  }
  return true;
}

std::optional<KelvaneRecentServiceInfo> readService(const archive::Object& object) {
  return KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(object.value(amountField),
                                                            object.value(serviceTimestampField));
}

std::optional<KelvaneRecentVolumeInfo> readVolume(const archive::Object& object) {
  std::optional<KelvaneRecentVolumeInfo::Services> services;
  if (!read(object.objects(servicesField), serviceClass, services, readService)) {
    return std::nullopt;
  }
  return KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(std::move(services), object.value(freespaceField),
                                                          object.value(volumeTimestampField),
                                                          object.value(volumeNameField));
}

}  // namespace

std::shared_ptr<KelvaneRecentInfo> KelvaneRecentInfo::fromArchive(std::span<const std::uint8_t> bytes) {
  const auto object = archive::read(bytes, classes);
  std::optional<Volumes> volumes;
  if (!object || &object->type() != &infoClass ||
      !read(object->objects(volumesField), volumeClass, volumes, readVolume)) {
    return nullptr;
  }
  auto info = kelvaneRecentInfo(std::move(volumes));
  info->isFromArchive_ = true;
  return info;
}

archive::Size archiveSizeOf(const std::string& name, const KelvaneRecentVolumeInfo& volume) {
  archive::Size size = archive::sizeOfObject;
  size += archive::sizeOfKey(name);
  size += archive::sizeOf(volume.freespace());
  size += archive::sizeOf(volume.timestamp());
  size += archive::sizeOf(volume.volumeName());
  // At most: a field without services is shorter than one with none.
  size += archive::sizeOfObjects;
  return size;
}

archive::Size archiveSizeOfRecord() {
  archive::Size size = archive::sizeOf(classes);
  size += archive::sizeOfObject;
  size += archive::sizeOfObjects;
  return size;
}

std::optional<Data> KelvaneRecentInfo::archive() const {
  // One entry more than the last time still fits.
  archive::Writer writer(classes, expectedBytes_ + 512);
  writer.object(infoClass);
  write(writer, volumes(), volumeClass, [&](const KelvaneRecentVolumeInfo& volume) {
    writer.value(volume.freespace());
    write(writer, volume.services(), serviceClass, [&](const KelvaneRecentServiceInfo& service) {
      writer.value(service.amount());
      writer.value(service.timestamp());
    });
    writer.value(volume.timestamp());
    writer.value(volume.volumeName());
  });
  std::optional<Data> bytes = writer.finish();
  expectedBytes_ = bytes ? bytes->size() : 0;
  return bytes;
}

}  // namespace kelvane

// SPDX-License-Identifier: Apache-2.0
// Every limit on what a peer or a file can make this system hold, in one place.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kelvane::limits {

// Property lists
inline constexpr std::size_t propertyListBytes = 1024 * 1024;
inline constexpr int propertyListDepth = 64;
/// What one list may come to, however small its file: entries of arrays and dictionaries, and bytes of
/// keys, strings and data, each counted again wherever it is referred to.
inline constexpr std::size_t propertyListEntries = 128 * 1024;
inline constexpr std::size_t propertyListContentBytes = 8 * 1024 * 1024;

// Archives
/// Enough for what all the services that may connect for one user answer about a volume, whatever their identifiers.
inline constexpr std::size_t archiveBytes = 3 * 1024 * 1024;
/// Objects, fields, and values within values.
inline constexpr std::size_t archiveEntries = 128 * 1024;
inline constexpr std::size_t archiveClasses = 16;

// The record of recent answers
inline constexpr std::size_t recentVolumes = 256;
/// An amount that is no number, as a binary property list and in an archive. A longer one is none, so that a few
/// services' cannot take up the record's room.
inline constexpr std::size_t recentAmountBytes = 256;
/// Values in it, itself included.
inline constexpr std::size_t recentAmountEntries = 60;

// The wire, both directions
inline constexpr int wireDictionaryDepth = 20;
/// How many containers within one another a value's description shows.
inline constexpr int descriptionDepth = wireDictionaryDepth + 4;
inline constexpr std::size_t serviceNameBytes = 90;

/// What a peer may say before its first message.
inline constexpr std::size_t handshakeBytes = 4096;
/// What each message takes that waits for a peer to read, besides what is in it; so many may wait on a connection.
inline constexpr std::size_t unsentMessageBytes = 1024;
inline constexpr std::size_t unsentMessagesPerConnection = 2048;

// The daemon's listener
inline constexpr int unansweredRequestsPerConnection = 64;
inline constexpr int connections = 8192;
/// Of these, so many are for the superuser alone.
inline constexpr int connectionsKeptForRoot = 64;
inline constexpr int connectionsPerUser = 4096;
/// Endpoints that one user, and all users together, can have this process hold.
inline constexpr int endpoints = 2048;
inline constexpr int endpointsOfAllUsers = 8192;
inline constexpr std::size_t heldRequestBytesPerUser = 16 * 1024 * 1024;
inline constexpr std::size_t requestBytes = 2 * 1024 * 1024;
/// What waits for a peer that does not read; beyond it the peer is dropped. No single message is longer.
inline constexpr std::size_t unsentBytesPerConnection = 4 * 1024 * 1024;
inline constexpr std::size_t unsentBytesPerUser = 32 * 1024 * 1024;
/// Connections on which a message has begun to arrive but has not ended.
inline constexpr int partialMessagesPerUser = 16;
/// Requests of one kind being delivered at once: over all users, and of one user.
inline constexpr int deliveredPerKind = 512;
inline constexpr int deliveredPerKindAndUser = 128;

// What is kept of a service for as long as it lives
/// An identifier is part of results and requests that name all services.
inline constexpr std::size_t serviceIdentifierBytes = 1024;
/// Counted as those of a state value are.
inline constexpr std::size_t notificationNamesBytes = 16 * 1024;

// The daemon's connections to services
inline constexpr int outstandingCallsPerService = 64;
/// Notifications that wait beyond that, and about how many bytes of them: above either, a later one takes the place of
/// an earlier one of its name.
inline constexpr int waitingCallsPerService = 1024;
inline constexpr std::size_t waitingBytesPerService = 8 * 1024 * 1024;
/// A service that is slow to end a reply makes this process hold so much of it, and no more.
inline constexpr std::size_t serviceReplyBytes = 64 * 1024;
/// For so long a service may take nothing off its socket while something waits to be sent.
inline constexpr std::chrono::seconds serviceStall{5 * 60};
/// Replies of one user's services that were decoded and are being dealt with.
inline constexpr std::size_t heldReplyBytesPerUser = 16 * 1024 * 1024;

// Statistics
/// Names beyond these, or longer, are counted together.
inline constexpr std::size_t statisticNames = 4096;
inline constexpr std::size_t statisticNameBytes = 256;

// Volumes
/// Threads that ask file systems. One is lost to each that does not answer, until it does; when all are, nothing is
/// known of any volume.
inline constexpr std::size_t probeThreads = 64;

// Files
/// What a walk through a directory lists at most, and how deep it goes (1 is the directory's own entries).
inline constexpr std::size_t directoryEntries = 64 * 1024;
inline constexpr int directoryDepth = 64;
/// Names of notifications and preferences suites, which are file names.
inline constexpr std::size_t fileNameBytes = 200;

// The state that clients store
/// One value: the bytes of its strings, keys and data, and stateElementBytes for each element of its arrays and
/// dictionaries.
inline constexpr std::size_t stateValueBytes = 1024 * 1024;
inline constexpr std::size_t stateElementBytes = 64;
/// All values with their keys, each an element; the record of recent answers is not among them.
inline constexpr std::size_t stateBytes = 8 * 1024 * 1024;
inline constexpr std::size_t stateKeys = 4096;
/// A value travels within one more dictionary, to those who are notified of it and as part of the whole state: so
/// many dictionaries, and D-Bus containers, it may have within each other itself.
inline constexpr int stateDictionaryDepth = wireDictionaryDepth - 1;
inline constexpr int stateContainerDepth = 61;

// Preferences
/// The contents of one suite as a binary property list. Enough for all of the state, whose strings may take twice
/// their bytes there, and for the record of recent answers.
inline constexpr std::size_t preferencesBytes = 2 * stateBytes + archiveBytes + 1024 * 1024;
inline constexpr std::size_t preferencesEntries = 2 * propertyListEntries;
/// What a suite can always be written with, however full the disk: room for the record and for 256 KiB besides.
inline constexpr std::size_t preferencesRoom = archiveBytes + 256 * 1024;
/// How long anybody waits for the disk of the preferences who is not told when it has answered.
inline constexpr std::chrono::seconds diskPatience{2};
/// How long a starting process waits for each file system on the way to them, and to whatever else it reads once.
inline constexpr std::chrono::seconds openingPatience{10};
/// Damaged stores of one suite that are kept; the last takes the place of the one before it.
inline constexpr int damagedPreferences = 8;

// Log
/// The rest of a longer message is left out.
inline constexpr std::size_t logMessageBytes = 64 * 1024;
/// Of a service's answer in a message that is not tracing.
inline constexpr std::size_t shownReplyBytes = 1024;
/// What one user is refused for the same reason again and again is told of at most so often.
inline constexpr std::chrono::seconds refusalLogInterval{60};
/// Users and reasons that are told apart there; for the rest users are not.
inline constexpr std::size_t toldRefusals = 256;

// The directory cache's configuration
inline constexpr std::size_t cacheDirectories = 64;
/// Patterns of one directory.
inline constexpr std::size_t cachePatterns = 256;
/// What it remembers of the files it may delete: so many of the oldest, with so many bytes of paths. When those are
/// gone it looks again.
inline constexpr std::size_t cacheCandidates = 16 * 1024;
inline constexpr std::size_t cacheCandidateBytes = 8 * 1024 * 1024;

}  // namespace kelvane::limits

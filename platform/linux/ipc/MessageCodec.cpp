// SPDX-License-Identifier: Apache-2.0
// The arguments and answers of an interface's operations, as D-Bus messages.
#include "platform/linux/ipc/MessageCodec.h"

#include <cerrno>
#include <cstring>

#include "platform/Limits.h"
#include "platform/linux/ipc/EndpointState.h"
#include "platform/linux/ipc/Signature.h"
#include "platform/linux/ipc/ValueDecoder.h"
#include "platform/linux/ipc/ValueEncoder.h"

namespace kelvane::ipc {

namespace {

constexpr char standInPath[] = "/";
/// What a message takes on the wire besides its values.
constexpr std::size_t headerBytes = 160;
/// What an endpoint takes in memory.
constexpr std::size_t endpointCost = 160;

/// Reads the arguments of one call.
class ArgumentsReader {
 public:
  ArgumentsReader(sd_bus_message* call, const Operation& operation, FileDescriptor descriptor, uid_t user,
                  std::size_t budget)
      : call_(call),
        operation_(operation),
        descriptor_(std::move(descriptor)),
        user_(user),
        decoder_(call, limits::wireDictionaryDepth, budget) {}

  bool read() {
    for (const Argument& argument : operation_.arguments) {
      if (!hasKind(argument.kind)) {
        return failForSignature();
      }
      if (!(argument.kind == ArgumentKind::Endpoint ? readEndpoint(argument) : readValue(argument))) {
        return false;
      }
    }
    return sd_bus_message_at_end(call_, 1) > 0 || failForSignature();
  }

  DecodedArguments result() { return {std::move(arguments_), decoder_.cost()}; }
  CallFault fault() { return std::move(fault_); }

 private:
  /// Whether the next argument is of the type that the interface declares. Any dictionary that the mapping
  /// takes is as good as one of variants.
  bool hasKind(ArgumentKind kind) {
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(call_, &type, &contents) <= 0) {
      return false;
    }
    if (kind == ArgumentKind::Dictionary) {
      return type == SD_BUS_TYPE_ARRAY && std::strncmp(contents, "{s", 2) == 0;
    }
    // hideDescriptor() has made a number of the descriptor. What was a number all along cannot be told from it and is
    // as good, since a descriptor came with the call. The text about a wrong signature, too, has "u" for "h" then.
    if (kind == ArgumentKind::Endpoint && descriptor_) {
      return type == SD_BUS_TYPE_UINT32;
    }
    return type == *signatureOf(kind);
  }

  bool readValue(const Argument& argument) {
    auto value = decoder_.next();
    if (!value) {
      return fail(decoder_.isOverBudget() ? SD_BUS_ERROR_LIMITS_EXCEEDED : SD_BUS_ERROR_INVALID_ARGS, argument,
                  ": " + decoder_.error());
    }
    arguments_.emplace_back(*std::move(value));
    return true;
  }

  bool readEndpoint(const Argument& argument) {
    std::uint32_t index = 0;
    if (!descriptor_ || sd_bus_message_read_basic(call_, SD_BUS_TYPE_UINT32, &index) <= 0 || index != 0) {
      return fail(SD_BUS_ERROR_INVALID_ARGS, argument, " is no descriptor that came with the message");
    }
    if (const auto fault = faultOfEndpoint(descriptor_.get())) {
      return fail(SD_BUS_ERROR_INVALID_ARGS, argument, " " + *fault);
    }
    EndpointPlace place = takeEndpointPlace(user_);
    if (place == nullptr || !decoder_.charge(endpointCost)) {
      return fail(SD_BUS_ERROR_LIMITS_EXCEEDED, argument, " is one endpoint too many");
    }
    arguments_.emplace_back(Endpoint(std::make_shared<Endpoint::State>(std::move(descriptor_), std::move(place))));
    return true;
  }

  bool fail(const char* name, const Argument& argument, const std::string& text) {
    fault_ = {name, std::string(operation_.member) + ": argument \"" + std::string(argument.name) + "\"" + text};
    return false;
  }

  bool failForSignature() {
    const char* actual = sd_bus_message_get_signature(call_, 1);
    fault_ = {SD_BUS_ERROR_INVALID_ARGS, std::string(operation_.member) + " takes arguments of the types \"" +
                                             signatureOf(operation_) + "\", not \"" +
                                             (actual == nullptr ? "" : actual) + "\""};
    return false;
  }

  sd_bus_message* const call_;
  const Operation& operation_;
  FileDescriptor descriptor_;
  const uid_t user_;
  ValueDecoder decoder_;
  Arguments arguments_;
  CallFault fault_;
};

bool appendArgument(sd_bus_message* message, ValueEncoder& encoder, ArgumentKind kind,
                    const Arguments::value_type& argument) {
  const Value* value = std::get_if<Value>(&argument);
  if (kind == ArgumentKind::Endpoint) {
    const Endpoint* endpoint = std::get_if<Endpoint>(&argument);
    const FileDescriptor fd = endpoint == nullptr ? FileDescriptor() : endpoint->state()->duplicated();
    const int number = fd.get();
    return fd && sd_bus_message_append_basic(message, SD_BUS_TYPE_UNIX_FD, &number) >= 0;
  }
  if (value == nullptr) {
    return false;
  }
  switch (kind) {
    case ArgumentKind::Integer: {
      const std::int32_t number = value->int32Value();
      return sd_bus_message_append_basic(message, SD_BUS_TYPE_INT32, &number) >= 0;
    }
    case ArgumentKind::String:
      return value->isString() && encoder.appendString(*value->string());
    case ArgumentKind::Dictionary:
      return encoder.appendDictionary(*value);
    default:
      return encoder.appendVariant(*value);
  }
}

/// Ends the making of a call.
bool seal(sd_bus_message* call) {
  static std::uint32_t cookie = 0;
  // 0 is none.
  cookie = cookie == UINT32_MAX ? 1 : cookie + 1;
  return sd_bus_message_seal(call, cookie, 0) >= 0;
}

/// Stands for a call that was freed: the library makes answers only from calls.
sd_bus_message* makeStandIn(sd_bus* bus, std::uint64_t cookie) {
  sd_bus_message* call = nullptr;
  if (sd_bus_message_new_method_call(bus, &call, nullptr, standInPath, nullptr, "Call") < 0) {
    return nullptr;
  }
  if (sd_bus_message_seal(call, cookie, 0) < 0) {
    return sd_bus_message_unref(call);
  }
  return call;
}

}  // namespace

std::variant<DecodedArguments, CallFault> decodeArguments(sd_bus_message* call, const Operation& operation,
                                                          FileDescriptor descriptor, uid_t user, std::size_t budget) {
  ArgumentsReader reader(call, operation, std::move(descriptor), user, budget);
  if (!reader.read()) {
    return reader.fault();
  }
  return reader.result();
}

DecodedReply decodeReply(sd_bus_message* reply, const Operation& operation, std::size_t budget) {
  if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
    const std::string text = error->message != nullptr ? std::string(": ") + error->message : "";
    return {CallError{error->name + text, CallError::Cause::Answered}, text.size()};
  }
  if (operation.reply == ReplyKind::Nothing) {
    return {Value()};
  }
  // What was at the limit in a call may lie in one dictionary more in an answer.
  ValueDecoder decoder(reply, limits::wireDictionaryDepth + 1, budget);
  if (sd_bus_message_has_signature(reply, "v") > 0) {
    if (std::optional<Value> value = decoder.next()) {
      return {std::move(*value), decoder.cost()};
    }
  }
  return {CallError{decoder.isOverBudget()
                        ? std::string(SD_BUS_ERROR_LIMITS_EXCEEDED) + ": The reply takes too much memory"
                        : std::string(SD_BUS_ERROR_INVALID_SIGNATURE) + ": The reply is no value",
                    CallError::Cause::Answered}};
}

std::optional<OutgoingMessage> makeCall(sd_bus* bus, const Interface& interface, const Operation& operation,
                                        const Arguments& arguments) {
  OutgoingMessage call;
  if (arguments.size() != operation.arguments.size() ||
      sd_bus_message_new_method_call(bus, &call.message, nullptr, std::string(interface.objectPath).c_str(),
                                     std::string(interface.name).c_str(), std::string(operation.member).c_str()) < 0) {
    return std::nullopt;
  }
  ValueEncoder encoder(call.message);
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    if (!appendArgument(call.message, encoder, operation.arguments[index].kind, arguments[index])) {
      sd_bus_message_unref(call.message);
      return std::nullopt;
    }
  }
  if (!seal(call.message)) {
    sd_bus_message_unref(call.message);
    return std::nullopt;
  }
  call.bytes = headerBytes + encoder.bytes();
  return call;
}

std::optional<OutgoingMessage> makeCopy(sd_bus* bus, const OutgoingMessage& call) {
  sd_bus_message* const original = call.message;
  OutgoingMessage copy = {.message = nullptr, .bytes = call.bytes};
  if (sd_bus_message_new_method_call(bus, &copy.message, nullptr, sd_bus_message_get_path(original),
                                     sd_bus_message_get_interface(original), sd_bus_message_get_member(original)) < 0 ||
      sd_bus_message_rewind(original, 1) < 0 || sd_bus_message_copy(copy.message, original, 1) < 0 ||
      !seal(copy.message)) {
    sd_bus_message_unref(copy.message);
    return std::nullopt;
  }
  return copy;
}

std::uint64_t cookieOf(const OutgoingMessage& message) {
  std::uint64_t cookie = 0;
  sd_bus_message_get_cookie(message.message, &cookie);
  return cookie;
}

std::optional<OutgoingMessage> makeReply(sd_bus* bus, std::uint64_t cookie, const Operation& operation,
                                         const Value& value) {
  sd_bus_message* const call = makeStandIn(bus, cookie);
  OutgoingMessage reply;
  const bool isMade = call != nullptr && sd_bus_message_new_method_return(call, &reply.message) >= 0;
  sd_bus_message_unref(call);
  if (!isMade) {
    return std::nullopt;
  }
  ValueEncoder encoder(reply.message);
  if (operation.reply == ReplyKind::Any && !encoder.appendVariant(value)) {
    sd_bus_message_unref(reply.message);
    return std::nullopt;
  }
  reply.bytes = headerBytes + encoder.bytes();
  return reply;
}

std::optional<OutgoingMessage> makeError(sd_bus* bus, std::uint64_t cookie, const CallFault& fault) {
  sd_bus_message* const call = makeStandIn(bus, cookie);
  const std::string text = wireText(fault.text);
  const bool isName = sd_bus_interface_name_is_valid(fault.name.c_str()) > 0;
  const sd_bus_error error{
      .name = isName ? fault.name.c_str() : SD_BUS_ERROR_FAILED, .message = text.c_str(), ._need_free = 0};
  OutgoingMessage reply;
  const bool isMade = call != nullptr && sd_bus_message_new_method_error(call, &reply.message, &error) >= 0;
  sd_bus_message_unref(call);
  if (!isMade) {
    return std::nullopt;
  }
  reply.bytes = headerBytes + fault.name.size() + fault.text.size();
  return reply;
}

}  // namespace kelvane::ipc

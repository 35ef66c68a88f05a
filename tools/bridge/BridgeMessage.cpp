#include "tools/bridge/BridgeMessage.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <type_traits>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the binary form is the host's little-endian layout");

namespace {

using json = nlohmann::ordered_json;

bool token_byte(unsigned char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
           byte == '-' || byte == '_';
}

size_t id_length(const instrument& book) {
    return strnlen(reinterpret_cast<const char*>(book.inst_id), sizeof(book.inst_id));
}

// Each byte as the code point of the same number, in UTF-8.
std::string latin1_to_utf8(const unsigned char* bytes, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char byte = bytes[i];
        if (byte < 0x80) {
            text += static_cast<char>(byte);
        } else {
            text += static_cast<char>(0xC0 | (byte >> 6));
            text += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return text;
}

bool utf8_to_latin1(const std::string& text, unsigned char* out, size_t capacity, size_t& length) {
    length = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x80) {
            const unsigned char next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
            if ((byte != 0xC2 && byte != 0xC3) || (next & 0xC0) != 0x80) {
                return false;
            }
            byte = static_cast<unsigned char>(((byte & 0x03) << 6) | (next & 0x3F));
            ++i;
        }
        if (length == capacity || byte == 0) {
            return false;
        }
        out[length++] = byte;
    }
    return true;
}

json number(double value) {
    return std::isfinite(value) ? json(value) : json(nullptr);
}

template <typename T>
json levels(const T (&values)[QUVO_BOOK_LEVELS]) {
    json array = json::array();
    for (const T value : values) {
        if constexpr (std::is_floating_point_v<T>) {
            array.push_back(number(value));
        } else {
            array.push_back(value);
        }
    }
    return array;
}

// Reads `name` into `out`; throws with the name when it is missing, of
// another type or out of `out`'s range.
template <typename T>
void read(const json& object, const char* name, T& out) {
    const json& value = object.at(name);
    if constexpr (std::is_floating_point_v<T>) {
        if (value.is_null()) {
            out = std::numeric_limits<T>::quiet_NaN();
            return;
        }
        if (!value.is_number()) {
            throw std::runtime_error(std::string(name) + " is not a number");
        }
        out = value.get<T>();
    } else {
        bool fits = false;
        if (value.is_number_unsigned()) {
            fits = value.get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<T>::max());
        } else if (value.is_number_integer()) {
            const int64_t signedValue = value.get<int64_t>();
            fits = signedValue >= static_cast<int64_t>(std::numeric_limits<T>::min()) &&
                   (signedValue < 0 || static_cast<uint64_t>(signedValue) <=
                                           static_cast<uint64_t>(std::numeric_limits<T>::max()));
        }
        if (!fits) {
            throw std::runtime_error(std::string(name) + " is not an integer in range");
        }
        out = value.get<T>();
    }
}

template <typename T>
void read_levels(const json& object, const char* name, T (&out)[QUVO_BOOK_LEVELS]) {
    const json& array = object.at(name);
    if (!array.is_array() || array.size() != QUVO_BOOK_LEVELS) {
        throw std::runtime_error(std::string(name) + " is not an array of ten");
    }
    for (size_t i = 0; i < QUVO_BOOK_LEVELS; ++i) {
        json holder = json::object();
        holder[name] = array[i];
        read(holder, name, out[i]);
    }
}

bool decode_json(const char* text, size_t size, quvo_book_msg& out, std::string& error) {
    try {
        const json object = json::parse(text, text + size);
        if (!object.is_object()) {
            error = "not a JSON object";
            return false;
        }
        uint32_t version = 0;
        read(object, "v", version);
        if (version != QUVO_BOOK_MSG_VERSION) {
            error = "message version " + std::to_string(version) + ", expected " +
                    std::to_string(QUVO_BOOK_MSG_VERSION);
            return false;
        }
        quvo_book_msg msg{};
        msg.magic = QUVO_BOOK_MSG_MAGIC;
        msg.version = QUVO_BOOK_MSG_VERSION;
        read(object, "slot", msg.slot);
        read(object, "epoch", msg.epoch);
        read(object, "seq", msg.seq);
        read(object, "publish_ns", msg.publish_ns);
        instrument& book = msg.book;
        const json& id = object.at("id");
        size_t length = 0;
        if (!id.is_string() ||
            !utf8_to_latin1(id.get<std::string>(), book.inst_id, sizeof(book.inst_id), length)) {
            error = "id is not an identifier of at most 16 Latin-1 characters";
            return false;
        }
        read(object, "type", book.type);
        read(object, "change_no", book.change_no);
        read(object, "update_time", book.update_time);
        read(object, "update_milli_sec", book.update_milli_sec);
        read(object, "last_px", book.last_px);
        read(object, "volume", book.volume);
        read(object, "turnover", book.turnover);
        read(object, "open_interest", book.open_interest);
        read(object, "bid_totvol", book.bid_totvol);
        read(object, "ask_totvol", book.ask_totvol);
        read(object, "bid_totamount", book.bid_totamount);
        read(object, "ask_totamount", book.ask_totamount);
        read(object, "highest_price", book.highest_price);
        read(object, "lowest_price", book.lowest_price);
        read_levels(object, "bid_px", book.bid_px);
        read_levels(object, "bid_vol", book.bid_vol);
        read_levels(object, "ask_px", book.ask_px);
        read_levels(object, "ask_vol", book.ask_vol);
        out = msg;
    } catch (const std::exception& e) {
        error = std::string("not a book message in JSON: ") + e.what();
        return false;
    }
    if (out.slot >= QUVO_INST_SLOTS) {
        error = "slot " + std::to_string(out.slot) + " is outside the area";
        return false;
    }
    return true;
}

}  // namespace

const char* bridge_exchange(uint32_t slot) {
    return quvo_slot_is_ine(slot) ? "INE" : "SHFE";
}

std::string bridge_id_token(const instrument& book) {
    static const char kHex[] = "0123456789ABCDEF";
    const size_t length = id_length(book);
    if (length == 0) {
        return "=";
    }
    std::string token;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char byte = book.inst_id[i];
        if (token_byte(byte)) {
            token += static_cast<char>(byte);
        } else {
            token += '=';
            token += kHex[byte >> 4];
            token += kHex[byte & 0x0F];
        }
    }
    return token;
}

std::string bridge_subject(const std::string& prefix, uint32_t slot, const instrument& book) {
    return prefix + "." + bridge_key(slot, book);
}

std::string bridge_key(uint32_t slot, const instrument& book) {
    return std::string(bridge_exchange(slot)) + "." + bridge_id_token(book);
}

quvo_book_msg bridge_message(uint32_t slot, uint64_t epoch, uint64_t seq, uint64_t publishNs,
                             const instrument& book) {
    quvo_book_msg msg{};
    msg.magic = QUVO_BOOK_MSG_MAGIC;
    msg.version = QUVO_BOOK_MSG_VERSION;
    msg.slot = static_cast<uint16_t>(slot);
    msg.epoch = epoch;
    msg.seq = seq;
    msg.publish_ns = publishNs;
    memcpy(&msg.book, &book, sizeof(book));
    return msg;
}

std::string bridge_encode(const quvo_book_msg& msg) {
    return std::string(reinterpret_cast<const char*>(&msg), sizeof(msg));
}

std::string bridge_encode_json(const quvo_book_msg& msg) {
    const instrument& book = msg.book;
    const json object = {
        {"v", msg.version},
        {"exchange", bridge_exchange(msg.slot)},
        {"slot", msg.slot},
        {"inst_no", quvo_slot_inst_no(msg.slot)},
        {"epoch", msg.epoch},
        {"seq", msg.seq},
        {"publish_ns", msg.publish_ns},
        {"id", latin1_to_utf8(book.inst_id, id_length(book))},
        {"type", book.type},
        {"change_no", book.change_no},
        {"update_time", book.update_time},
        {"update_milli_sec", book.update_milli_sec},
        {"last_px", number(book.last_px)},
        {"volume", book.volume},
        {"turnover", number(book.turnover)},
        {"open_interest", number(book.open_interest)},
        {"bid_totvol", book.bid_totvol},
        {"ask_totvol", book.ask_totvol},
        {"bid_totamount", number(book.bid_totamount)},
        {"ask_totamount", number(book.ask_totamount)},
        {"highest_price", number(book.highest_price)},
        {"lowest_price", number(book.lowest_price)},
        {"bid_px", levels(book.bid_px)},
        {"bid_vol", levels(book.bid_vol)},
        {"ask_px", levels(book.ask_px)},
        {"ask_vol", levels(book.ask_vol)},
    };
    return object.dump();
}

bool bridge_decode(const void* data, size_t size, quvo_book_msg& out, std::string& error) {
    const char* bytes = static_cast<const char*>(data);
    if (size > 0 && bytes[0] == '{') {
        return decode_json(bytes, size, out, error);
    }
    uint32_t magic = 0;
    uint16_t version = 0;
    if (size < sizeof(magic) + sizeof(version)) {
        error = "a message of " + std::to_string(size) + " bytes is too short";
        return false;
    }
    memcpy(&magic, bytes, sizeof(magic));
    memcpy(&version, bytes + offsetof(quvo_book_msg, version), sizeof(version));
    if (magic != QUVO_BOOK_MSG_MAGIC) {
        error = "not a book message (no magic number)";
        return false;
    }
    if (version != QUVO_BOOK_MSG_VERSION) {
        error = "message version " + std::to_string(version) + ", expected " +
                std::to_string(QUVO_BOOK_MSG_VERSION);
        return false;
    }
    if (size != sizeof(quvo_book_msg)) {
        error = "a version " + std::to_string(version) + " message of " + std::to_string(size) +
                " bytes, expected " + std::to_string(sizeof(quvo_book_msg));
        return false;
    }
    quvo_book_msg msg;
    memcpy(&msg, bytes, sizeof(msg));
    if (msg.slot >= QUVO_INST_SLOTS) {
        error = "slot " + std::to_string(msg.slot) + " is outside the area";
        return false;
    }
    out = msg;
    return true;
}

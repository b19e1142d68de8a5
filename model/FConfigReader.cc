// FConfig::read: a configuration document read straight from the parser's tokens into records,
// with no value tree in between. A document of thousands of packs is read at every start and
// every update; building the tree first cost several times the parse itself.
//
// The result is exactly that of reading the parsed tree: a duplicate key keeps its last value
// (a second "packs" replaces the first; a second record of a name replaces the first, and only
// the last one is judged), a container where a field wants a scalar reads as the field's zero,
// and a record that is not a non-empty object marks its pack deleted.
#include <unordered_set>

#include "base/Telemetry.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/FConfig.h"

namespace FerritCore {

using MarlLogger::json::JSON;

namespace {

// Records list a handful of prefixes and referrers; room for them at once saves regrowing.
constexpr size_t kTypicalListLength = 4;

class DocumentReader final : public MarlLogger::json::JSONEvents {
  public:
    explicit DocumentReader(FConfig& config) : config_(config) {}

    bool notObject() const { return notObject_; }
    // Names whose last record was refused by Pack::validate.
    const std::unordered_set<std::string>& refused() const { return refused_; }

    bool startObject() override { return open(/*isObject=*/true); }
    bool startArray() override { return open(/*isObject=*/false); }

    bool endObject() override { return close(); }
    bool endArray() override { return close(); }

    bool key(std::string_view key) override {
        if (skipping_ > 0) return true;
        switch (level_) {
            case Level::Document:
                key_.assign(key);
                if (key == "packs") {
                    // Only the last "packs" of a document counts.
                    config_.clearPacks();
                    refused_.clear();
                }
                break;
            case Level::Packs:
                name_.assign(key);
                break;
            case Level::Record:
                key_.assign(key);
                ++members_;
                break;
            default:
                break;
        }
        return true;
    }

    bool scalar(const JSON& value) override {
        if (skipping_ > 0) return true;
        switch (level_) {
            case Level::Start:
                notObject_ = true;
                break;
            case Level::Document:
                if (key_ != "packs") readField(key_, value);
                break;
            case Level::Packs:
                deleted();
                break;
            case Level::Record:
                pack_->readField(key_, value);
                break;
            case Level::List:
                list_->push_back(value.stringValue());
                break;
            case Level::Done:
                break;
        }
        return true;
    }

    bool string(std::string_view text) override {
        if (skipping_ > 0) return true;
        switch (level_) {
            case Level::Record:
                // Text fields take the parser's bytes directly: one copy, not two.
                if (std::string* field = pack_->textField(key_)) {
                    field->assign(text);
                    return true;
                }
                break;
            case Level::List:
                list_->emplace_back(text);
                return true;
            default:
                break;
        }
        return scalar(JSON(text));
    }

  private:
    enum class Level { Start, Document, Packs, Record, List, Done };

    bool open(bool isObject) {
        if (skipping_ > 0) {
            ++skipping_;
            return true;
        }
        switch (level_) {
            case Level::Start:
                if (isObject) {
                    level_ = Level::Document;
                } else {
                    notObject_ = true;
                    skipping_ = 1;
                }
                return true;
            case Level::Document:
                if (key_ == "packs" && isObject) {
                    level_ = Level::Packs;
                    return true;
                }
                if (key_ != "packs") readField(key_, JSON::null());
                break;
            case Level::Packs:
                if (isObject) {
                    pack_ = std::make_shared<Pack>();
                    pack_->name = name_;
                    members_ = 0;
                    level_ = Level::Record;
                    return true;
                }
                deleted();
                break;
            case Level::Record:
                if (std::vector<std::string>* list = pack_->listField(key_)) {
                    list->clear();
                    if (!isObject) {
                        list->reserve(kTypicalListLength);
                        list_ = list;
                        level_ = Level::List;
                        return true;
                    }
                } else {
                    pack_->readField(key_, JSON::null());
                }
                break;
            case Level::List:
                list_->emplace_back();  // a container in a list of text reads as ""
                break;
            case Level::Done:
                break;
        }
        // A container whose contents mean nothing here.
        skipping_ = 1;
        return true;
    }

    bool close() {
        if (skipping_ > 0) {
            --skipping_;
            return true;
        }
        switch (level_) {
            case Level::List:
                level_ = Level::Record;
                break;
            case Level::Record:
                finishRecord();
                level_ = Level::Packs;
                break;
            case Level::Packs:
                level_ = Level::Document;
                break;
            case Level::Document:
                level_ = Level::Done;
                break;
            default:
                break;
        }
        return true;
    }

    void readField(std::string_view key, const JSON& value) {
        if (key == "v")
            config_.version = value.stringValue();
        else if (key == "i")
            config_.fullMark = value.uint32Value();
        else if (key == "scacheVersion")
            config_.scacheVersion = value.stringValue();
        else if (key == "delay")
            config_.delay = value.doubleValue();
        else if (key == "env")
            config_.env = value.uint32Value();
        else if (key == "clientVersion")
            config_.clientVersion = value.stringValue();
        else if (key == "locale")
            config_.locale = value.stringValue();
        else if (key == "lastUpdate")
            config_.lastUpdate = value.doubleValue();
        else if (key == "lastFullUpdate")
            config_.lastFullUpdate = value.doubleValue();
        else if (key == "issued")
            config_.issued = value.doubleValue();
        else if (key == "expires")
            config_.expires = value.doubleValue();
        else if (key == "channel")
            config_.channel = value.stringValue();
    }

    // null, {}, a scalar or an array: the server says this pack is to go.
    void deleted() {
        auto pack = std::make_shared<Pack>();
        pack->name = name_;
        pack->status = kPackStatusDeleted;
        keep(std::move(pack));
    }

    void finishRecord() {
        std::shared_ptr<Pack> pack = std::move(pack_);
        if (members_ == 0) {
            pack->status = kPackStatusDeleted;
        } else if (!pack->validate()) {
            config_.erase(pack->name);
            refused_.insert(pack->name);
            return;
        }
        keep(std::move(pack));
    }

    void keep(std::shared_ptr<Pack> pack) {
        if (!refused_.empty()) refused_.erase(pack->name);
        config_.store(std::move(pack));
    }

    FConfig& config_;
    Level level_ = Level::Start;
    int skipping_ = 0;  // depth inside a container being passed over
    bool notObject_ = false;
    std::string key_;   // the member whose value comes next, in the document or a record
    std::string name_;  // the record whose value comes next
    std::shared_ptr<Pack> pack_;
    size_t members_ = 0;
    std::vector<std::string>* list_ = nullptr;
    std::unordered_set<std::string> refused_;
};

}  // namespace

namespace {

// Whether the parse gave a document; `reason` says why not.
bool readWhole(bool parsed, const DocumentReader& reader, std::string& reason) {
    if (!parsed) {
        if (reason.empty()) reason = "unreadable";
        return false;
    }
    if (reader.notObject()) {
        reason = "not an object";
        return false;
    }
    return true;
}

}  // namespace

void FConfig::reportRefusedIn(std::string_view text, const std::unordered_set<std::string>& names) {
    // A refused record is reported as the server sent it; this is rare enough that reading the
    // text a second time, as a tree, costs nothing that matters.
    const JSON document = JSON::parse(text);
    for (const auto& [name, record] : document["packs"].objectValue())
        if (names.count(name) != 0) reportRefused(name, record);
}

bool FConfig::read(std::string_view text, std::string& reason) {
    DocumentReader reader(*this);
    if (!readWhole(JSON::parseEvents(text, reader, &reason), reader, reason)) return false;
    if (!reader.refused().empty()) reportRefusedIn(text, reader.refused());
    return true;
}

bool FConfig::readInPlace(std::string& text, std::string& reason,
                          const std::function<std::string()>& reread) {
    DocumentReader reader(*this);
    if (!readWhole(JSON::parseEventsInPlace(text, reader, &reason), reader, reason)) return false;
    // The parse rewrote the text: the report reads it again.
    if (!reader.refused().empty() && reread) reportRefusedIn(reread(), reader.refused());
    return true;
}

}  // namespace FerritCore

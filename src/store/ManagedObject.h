#pragma once
// The object store's model: entity descriptions, managed objects whose attributes live in a value table
// (no stored fields of their own), and the errors a save can report.
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/Error.h"

namespace sprelio::store {

// Domain of the model's own errors (validation, unknown entity or key). Failures of SQLite itself carry
// kSqliteErrorDomain with SQLite's result code as the code and its message as the description.
inline constexpr const char* kStoreErrorDomain = "SprelioStoreErrorDomain";
inline constexpr const char* kSqliteErrorDomain = "NSSQLiteErrorDomain";

// Error codes of kStoreErrorDomain; the numbers are Core Data's, so that logs read alike on both platforms.
namespace store_error {
inline constexpr long kValidation = 1550;              // wrong type for the attribute, bad UUID / URL / UTF-8
inline constexpr long kMultipleValidationErrors = 1560; // a save found several invalid objects (detailed errors)
inline constexpr long kMissingMandatoryProperty = 1570; // a number or boolean without a value
inline constexpr long kNumberTooLarge = 1610;
inline constexpr long kNumberTooSmall = 1620;
inline constexpr long kUnknownEntity = 134060;          // fetch of an entity that the model lacks
inline constexpr long kUnknownKey = 134061;             // sort key that the entity lacks
inline constexpr long kObjectNotFound = 133000;         // URI of an object that is gone
} // namespace store_error

// userInfo keys of validation errors.
inline constexpr const char* kValidationKeyErrorKey = "NSValidationErrorKey";
inline constexpr const char* kValidationValueErrorKey = "NSValidationErrorValue";

enum class AttributeType { uuid, int16, date, string, boolean, url };
std::string_view attributeTypeName(AttributeType type);

struct AttributeDescription {
    std::string name;
    AttributeType type;
    // User-owned text (dictated text, rules, prompts): shown as "<privatized>" in object descriptions.
    bool privateText = false;
};

class ManagedObject;

struct EntityDescription {
    std::string name;
    std::vector<AttributeDescription> attributes;
    // Makes an empty object of the entity's class (used when rows are read from the store).
    std::shared_ptr<ManagedObject> (*make)() = nullptr;
    // Index of an attribute by name, or -1.
    int indexOf(std::string_view attribute) const;
};

// Raw attribute values. Numbers are kept wide so that an out-of-range value read from disk is caught by validation
// rather than silently truncated; dates are seconds since 1970; UUIDs and URLs are their text forms.
using AttributeValue = std::variant<std::monostate, std::int64_t, double, bool, std::string>;
// A value as logs show it: nil, numbers, true/false, strings in quotes.
std::string describeValue(const AttributeValue& value);

class ManagedObjectContext;

class ManagedObject : public std::enable_shared_from_this<ManagedObject> {
public:
    // Numbers start at 0, booleans at false, everything else at nil.
    explicit ManagedObject(const EntityDescription& entity);
    virtual ~ManagedObject() = default;
    ManagedObject(const ManagedObject&) = delete;
    ManagedObject& operator=(const ManagedObject&) = delete;

    const EntityDescription& entity() const { return *entity_; }
    // The object's identity as a URI: "x-sprelio://<store-uuid>/<Entity>/p<rowid>" once saved,
    // "x-sprelio:///<Entity>/t<n>" (temporary) before.
    std::string objectIDString() const;
    bool hasPermanentID() const { return primaryKey_ > 0; }
    std::int64_t primaryKey() const { return primaryKey_; }
    // The context the object is registered in; nullptr once it was deleted and saved, dropped by a rollback or
    // refresh, or when it was never inserted.
    ManagedObjectContext* managedObjectContext() const { return context_; }

    bool isInserted() const { return inserted_; }
    bool isDeleted() const { return deleted_; }
    // Registered, saved before, not deleted, and some value differs from the store's.
    bool isUpdated() const;
    bool hasChanges() const { return isInserted() || isDeleted() || isUpdated(); }

    // Throws std::invalid_argument for an attribute that the entity lacks.
    const AttributeValue& value(std::string_view attribute) const;
    void setValue(std::string_view attribute, AttributeValue value);
    const AttributeValue& valueAt(std::size_t index) const { return values_.at(index); }
    void setValueAt(std::size_t index, AttributeValue value);
    // The value as last read from or written to the store (nil for an object never saved).
    const AttributeValue& committedValueAt(std::size_t index) const;

    // Checks the values against the model (types, ranges, UUID and URL forms) and the entity's own rules.
    // Returns the first failure, or nothing when the object is valid.
    virtual std::optional<Error> validateForUpdate() const;
    // "<Entity: 0x...> (entity: Entity; id: <uri>; data: {...})"; private text shows as "<privatized>".
    std::string description() const;

protected:
    // Typed access for the entity classes. A value of another type reads as nil / 0 / false.
    std::optional<std::string> stringAt(std::size_t index) const;
    void setStringAt(std::size_t index, std::optional<std::string> value);
    std::int64_t integerAt(std::size_t index) const;
    void setIntegerAt(std::size_t index, std::int64_t value);
    bool boolAt(std::size_t index) const;
    void setBoolAt(std::size_t index, bool value);
    std::optional<double> dateAt(std::size_t index) const;
    void setDateAt(std::size_t index, std::optional<double> secondsSince1970);

private:
    friend class ManagedObjectContext;
    const EntityDescription* entity_;
    std::vector<AttributeValue> values_;
    std::vector<AttributeValue> committed_; // values as last read from or written to disk; empty before
    ManagedObjectContext* context_ = nullptr;
    std::shared_ptr<const std::string> storeID_; // the store's UUID, set with the primary key
    std::int64_t primaryKey_ = 0;
    std::uint64_t temporaryID_ = 0;
    bool inserted_ = false;
    bool deleted_ = false;
    bool touched_ = false; // in the context's list of possibly updated objects
};

// One failure of a save or fetch: the store's error plus, for a save, the failures of single objects.
struct DetailedError {
    std::string description;
    std::optional<std::string> object; // description of the object concerned, when known
};

class StoreError : public std::runtime_error {
public:
    StoreError(Error error, std::vector<DetailedError> detailed = {});
    const Error& error() const { return error_; }
    const std::vector<DetailedError>& detailedErrors() const { return detailed_; }

private:
    Error error_;
    std::vector<DetailedError> detailed_;
};

// A userInfo as Swift prints a dictionary: ["key": "value", ...]; "[:]" when empty.
std::string describeUserInfo(const std::map<std::string, std::string>& userInfo);

} // namespace sprelio::store

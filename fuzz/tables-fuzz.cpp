// Hash tables against a model that knows every link and reference: what a find answers, in which order enumerations go
// while their routines insert and delete, and when each item is freed.
#include "support/fuzz.h"

#include <list>
#include <vector>

using namespace fuzz;

namespace
{

constexpr size_t kSteps = 64, kMostItems = 24;
constexpr uint8_t kSizes[] = {0, 1, 2, 4, 5, 16};
constexpr uint32_t kValues[] = {0, 1, 2, 4, 5, 17, 0x80000000, 0xFFFFFFFF};
constexpr uint8_t kKeys = 3;

struct Record;

// What the model knows of an item.
struct Item {
    Record* record = nullptr; // the client's; null once it is freed
    uint32_t value = 0;
    uint8_t key = 0;
    bool linked = false;
    uint32_t held = 0; // references of this program, with that of the enumeration
};

struct Record {
    HashItem item;
    Item* model;
    uint8_t key;
};

std::list<Item*> ending; // what the present call of the table is to free, in this order

VOID FreeItem(HashItem* hashItem)
{
    auto* record = reinterpret_cast<Record*>(hashItem);
    Require(!ending.empty() && record->model == ending.front(), "an item is freed with its last reference");
    ending.front()->record = nullptr;
    ending.pop_front();
    delete record;
}

BOOLEAN CompareItem(HashItem* hashItem, const VOID* key)
{
    // Any value that is not zero is a match.
    return reinterpret_cast<Record*>(hashItem)->key == *static_cast<const uint8_t*>(key) ? 2 : 0;
}

class Tables
{
  public:
    explicit Tables(Input& input) : input_(input), size_(input.OneOf(kSizes)), compares_(!input.Flag())
    {
        table_ = Filter_CreateHashTable("things", size_, FreeItem, compares_ ? CompareItem : nullptr);
        Require(table_ != nullptr, "a table");
        // An odd size is raised to the next even one.
        mask_ = size_ == 0 ? 0 : (size_ % 2 != 0 ? size_ + 1u : size_) - 1u;
    }

    void Run()
    {
        for (size_t step = 0; step < kSteps && !input_.IsEmpty(); ++step) {
            Step();
            RequireEqual(Filter_GetHashItemCount(table_), count_, "the count of items");
        }
        // Items that are held outlive the table, and it lives as long as they do.
        if (input_.Flag()) {
            RemoveAll(true);
            ReleaseEverything();
        } else {
            ReleaseEverything();
            RemoveAll(true);
        }
    }

  private:
    void Step()
    {
        switch (input_.Below(9)) {
        case 0:
            RemoveAll(false);
            break;
        case 1:
            Filter_LockHashTable(table_, &lock_);
            locked_ = true;
            for (uint32_t more = input_.Below(4); more > 0; --more) {
                Change();
            }
            locked_ = false;
            Filter_UnLockHashTable(table_, &lock_);
            break;
        case 2:
            Enumerate(false);
            break;
        case 3:
            Enumerate(true);
            break;
        default:
            Change();
            break;
        }
    }

    void Change()
    {
        switch (input_.Below(6)) {
        case 0:
        case 1:
            Insert();
            break;
        case 2:
            Find();
            break;
        case 3:
            if (Item* item = AnyHeld()) {
                Filter_ReferenceHashItem(&item->record->item);
                ++item->held;
            }
            break;
        case 4:
            if (Item* item = AnyHeld()) {
                Release(item);
            }
            break;
        default:
            if (Item* item = AnyHeld(); item != nullptr && (item->linked || item->record->item.m_bDeleted)) {
                Delete(item);
            }
            break;
        }
    }

    // Inside an enumeration the short forms know that they must not take the lock.
    bool UseEx() { return locked_ || (enumerating_ && input_.Flag()); }

    void Insert()
    {
        if (items_.size() >= kMostItems) {
            return;
        }
        Item* item = &items_.emplace_back();
        item->value = input_.OneOf(kValues);
        item->key = static_cast<uint8_t>(input_.Below(kKeys));
        item->record = new Record{.item = {}, .model = item, .key = item->key};
        HashItem* hashItem = &item->record->item;
        hashItem->m_HashValue = item->value;
        HashItem* result =
            UseEx() ? Filter_InsertHashItemEx(table_, hashItem) : Filter_InsertHashItem(table_, hashItem);
        Require(result == hashItem, "the item inserted");
        item->linked = true;
        item->held = 1;
        all_.push_back(item);
        if (enumerating_ &&
            !bucket_) { // a new item is the last one, and not visited when there was none to go on with
            walk_.push_back(item);
        }
        ++count_;
    }

    void Find()
    {
        const uint32_t value = input_.OneOf(kValues);
        const auto key = static_cast<uint8_t>(input_.Below(kKeys));
        HashItem* found =
            UseEx() ? Filter_FindHashItemEx(table_, value, &key) : Filter_FindHashItem(table_, value, &key);
        Item* expected = nullptr;
        for (Item* item : all_) { // the newest is the last
            expected = item->value == value && (!compares_ || item->key == key) ? item : expected;
        }
        Require(found == (expected != nullptr ? &expected->record->item : nullptr),
                "the newest item that matches");
        if (expected != nullptr) {
            ++expected->held;
        }
    }

    Item* AnyHeld()
    {
        std::vector<Item*> held;
        for (Item& item : items_) {
            // That of the enumeration goes only by deleting the item.
            if (item.held > (&item == current_ ? 1u : 0u)) {
                held.push_back(&item);
            }
        }
        return held.empty() ? nullptr : input_.OneOf(held);
    }

    // The next call of the table frees it when nothing holds it any more.
    static void Expect(Item* item)
    {
        if (item->held == 0 && !item->linked) {
            ending.push_back(item);
        }
    }
    static void ExpectDone() { Require(ending.empty(), "what nothing holds any more is freed"); }

    void Release(Item* item)
    {
        --item->held;
        Expect(item);
        Filter_ReleaseHashItem(&item->record->item);
        ExpectDone();
    }

    // Of the item that is enumerated, it uses up the reference of the enumeration.
    void Delete(Item* item)
    {
        if (item->linked) {
            Unlink(item);
            --count_;
            current_ = item == current_ ? nullptr : current_;
        }
        --item->held;
        Expect(item);
        HashItem* hashItem = &item->record->item;
        Require(UseEx() ? Filter_DeleteHashItemEx(hashItem) : Filter_DeleteHashItem(hashItem), "deleting");
        ExpectDone();
    }

    void Unlink(Item* item)
    {
        if (next_ != walk_.end() && *next_ == item) {
            ++next_;
        }
        walk_.remove(item);
        all_.remove(item);
        item->linked = false;
    }

    // The routine does what the input says; the walk goes on behind the item that was the next one before it ran, unless
    // that was deleted: then behind that.
    void Enumerate(bool bucket)
    {
        const uint32_t value = bucket ? input_.OneOf(kValues) : 0;
        walk_.clear();
        for (Item* item : all_) {
            if (!bucket) {
                walk_.push_back(item);
            } else if ((item->value & mask_) == (value & mask_)) {
                walk_.push_front(item);
            }
        }
        next_ = walk_.begin();
        enumerating_ = true;
        bucket_ = bucket;
        const auto routine = [](PVOID context, HashItem* item) {
            static_cast<Tables*>(context)->Visit(item);
        };
        if (bucket) {
            Filter_EnumHashTableEx(table_, value, routine, this);
        } else {
            Filter_EnumHashTable(table_, routine, this);
        }
        LeaveCurrent();
        enumerating_ = false;
        Require(next_ == walk_.end(), "the whole walk");
    }

    void Visit(HashItem* hashItem)
    {
        LeaveCurrent();
        Require(next_ != walk_.end() && &(*next_)->record->item == hashItem &&
                    KeGetCurrentIrql() == DISPATCH_LEVEL,
                "the next item of the walk");
        current_ = *next_++;
        ++current_->held;
        for (uint32_t changes = input_.Below(3); changes > 0; --changes) {
            if (current_ != nullptr && input_.Below(4) == 0) {
                Delete(current_);
            } else {
                Change();
            }
        }
    }

    void LeaveCurrent()
    {
        if (current_ != nullptr) {
            --current_->held;
            current_ = nullptr;
        }
    }

    // Items that nobody holds are freed one after the other, as they were inserted.
    void RemoveAll(bool destroy)
    {
        for (Item* item : all_) {
            item->linked = false;
            Expect(item);
        }
        all_.clear();
        destroy ? Filter_DestroyHashTable(table_) : Filter_CleanHashTable(table_);
        ExpectDone();
    }

    void ReleaseEverything()
    {
        for (Item& item : items_) {
            while (item.held != 0) {
                Release(&item);
            }
        }
    }

    Input& input_;
    const uint8_t size_;
    const bool compares_;
    uint32_t mask_ = 0;
    HashTable* table_;
    LOCK_STATE lock_;
    bool locked_ = false, enumerating_ = false, bucket_ = false; // what is enumerated
    std::list<Item> items_;                                      // all that there ever were
    std::list<Item*> all_;                                       // in the table, the oldest first
    uint32_t count_ = 0; // a clean does not change what the table answers
    std::list<Item*> walk_;
    std::list<Item*>::iterator next_ = walk_.end();
    Item* current_ = nullptr;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Machine& kernel = *new Machine;
    Input input(data, size);
    Tables(input).Run();
    kernel.CheckAtRest();
    return 0;
}

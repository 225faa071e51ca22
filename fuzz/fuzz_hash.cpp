// Random operations on a few tables against a model that does the same in the plainest way.
#include "fuzz.h"

#include <array>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

namespace {

struct Entry {
    std::string key;
    intptr_t data;
    std::string text; // of a copied string
    bool copied;
};

struct Model {
    int handle = -1;
    std::vector<std::vector<Entry>> buckets;

    std::vector<Entry> &bucket_of(const std::string &key)
    {
        uint32_t sum = 0;
        unsigned int shift = 0;
        for (char c : key) {
            sum += static_cast<uint32_t>(static_cast<unsigned char>(c)) << shift;
            shift = (shift + 7) % 24;
        }
        return buckets[sum % buckets.size()];
    }

    Entry *find(const std::string &key)
    {
        for (Entry &entry : bucket_of(key)) {
            if (entry.key == key) {
                return &entry;
            }
        }
        return nullptr;
    }
};

size_t bucket_count(int size)
{
    const auto is_prime = [](int n) {
        for (int d = 2; d <= n / 2; d++) {
            if (n % d == 0) {
                return false;
            }
        }
        return true;
    };
    if (size <= 2) {
        return 31;
    }
    while (!is_prime(size)) {
        size--;
    }
    return static_cast<size_t>(size);
}

void check_entry(const Entry &expected, const frwk_hash_entry_t *entry)
{
    CHECK(entry != nullptr);
    CHECK(expected.key == reinterpret_cast<const char *>(entry->key.data) && entry->key.valid == 1);
    if (expected.copied) {
        CHECK(expected.text == reinterpret_cast<const char *>(entry->value.data));
    } else {
        CHECK(expected.data == entry->value.data);
    }
}

void check_all(const Model &model)
{
    const frwk_hash_entry_t *entry = frwk_hash_first(model.handle);
    for (size_t bucket = 0; bucket < model.buckets.size(); bucket++) {
        for (const Entry &expected : model.buckets[bucket]) {
            check_entry(expected, entry);
            CHECK(entry->bucket == static_cast<int>(bucket));
            entry = frwk_hash_next(model.handle, entry);
        }
    }
    CHECK(entry == nullptr);
}

void enter(Model *model, const std::string &key, FuzzedDataProvider *input)
{
    Entry entry = {key, 0, "", false};
    frwk_hash_value_t value;
    switch (input->ConsumeIntegralInRange(0, 2)) {
    case 0:
        entry.data = input->ConsumeIntegral<int>();
        value = frwk_hash_value_integer(static_cast<int>(entry.data));
        break;
    case 1:
        entry.data = reinterpret_cast<intptr_t>(model);
        value = frwk_hash_value_symbol(model);
        break;
    default:
        entry.copied = true;
        entry.text = input->ConsumeRandomLengthString(40).c_str();
        value = frwk_hash_value_string(entry.text.c_str(), 1);
        break;
    }
    check_entry(entry, frwk_hash_enter(model->handle, key.c_str(), value));
    if (Entry *old = model->find(key)) {
        *old = entry;
    } else {
        model->bucket_of(key).push_back(entry);
    }
}

void remove(Model *model, const std::string &key)
{
    std::vector<Entry> &bucket = model->bucket_of(key);
    for (size_t i = 0; i < bucket.size(); i++) {
        if (bucket[i].key == key) {
            bucket.erase(bucket.begin() + static_cast<ptrdiff_t>(i));
            CHECK(frwk_hash_delete(model->handle, key.c_str()) == 0);
            return;
        }
    }
    CHECK(frwk_hash_delete(model->handle, key.c_str()) == -1);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    trace_to_nothing();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    std::array<Model, 40> models; // more than two steps of the handle array
    while (input.remaining_bytes() > 0) {
        Model &model = models[input.ConsumeIntegralInRange<size_t>(0, models.size() - 1)];
        if (model.handle < 0) {
            const int wanted = input.ConsumeIntegralInRange(-3, 70);
            int lowest = 0;
            for (size_t i = 0; i < models.size(); i++) {
                if (models[i].handle == lowest) {
                    lowest++;
                    i = static_cast<size_t>(-1);
                }
            }
            model.handle = frwk_hash_create(wanted);
            CHECK(model.handle == lowest);
            model.buckets.assign(bucket_count(wanted), {});
            continue;
        }
        const uint8_t operation = input.ConsumeIntegral<uint8_t>() % 8;
        const std::string key = input.ConsumeRandomLengthString(30).c_str();
        if (operation < 4) {
            enter(&model, key, &input);
        } else if (operation < 6) {
            remove(&model, key);
        } else if (operation == 6) {
            frwk_hash_entry_t *entry = frwk_hash_lookup(model.handle, key.c_str());
            Entry *expected = key.empty() ? nullptr : model.find(key);
            CHECK((entry != nullptr) == (expected != nullptr));
            CHECK(frwk_hash_lookup_symbol(model.handle, key.c_str()) ==
                  (entry != nullptr ? reinterpret_cast<void *>(entry->value.data) : nullptr));
        } else if (key.size() < 3) {
            frwk_hash_free(model.handle);
            model = {};
        } else {
            check_all(model);
        }
    }
    for (Model &model : models) {
        if (model.handle >= 0) {
            check_all(model);
            frwk_hash_free(model.handle);
        }
    }
    return 0;
}

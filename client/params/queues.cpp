// SPDX-License-Identifier: Apache-2.0
#include "client/params/queues.h"

#include <utility>

namespace {

template <class Queue, class Entry>
void insert_into(Queue** queue, int key, Entry entry) {
    if (*queue == nullptr) *queue = new Queue;
    // Keys mostly come in ascending order. The first of a key stays.
    (*queue)->try_emplace((*queue)->end(), key, std::move(entry));
}

template <class Queue>
void release(Queue** queue) {
    delete *queue;
    *queue = nullptr;
}

}  // namespace

void QueueInsertion(vexon_func_call_info_t* info, int key, std::shared_ptr<ValuesInterface> value,
                    vexon_data_type_t type) {
    if (info == nullptr) return;
    insert_into(&info->type_queue, key, std::make_pair(type, std::move(value)));
}

void value_QueueInsertion(vexon_func_call_info_t* info, int key,
                          std::shared_ptr<ValuesInterface> value) {
    if (info == nullptr) return;
    insert_into(&info->value_queue, key, std::move(value));
}

void ClearParamsFromQueues(vexon_func_call_info_t info) {
    release(&info.value_queue);
    release(&info.type_queue);
}

#include <basalt/Object.h>

#include <cstdio>
#include <typeinfo>

#include <basalt/Exception.h>
#include <basalt/WeakLink.h>

namespace Basalt {

Object::~Object() = default;
ObjectImpl::~ObjectImpl() = default;
WeakLinkable::~WeakLinkable() = default;

void ObjectImpl::IncRef() const {
    m_refCount.fetch_add(1, std::memory_order_relaxed);
}

void ObjectImpl::DecRef() const {
    if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

std::string ObjectImpl::ToString() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return DemangledName(typeid(*this)) + "@" + address;
}

Ref<Object> WeakLink::Lock() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_target) {
        return nullptr;
    }
    // Only an object that still has a strong reference may gain another: once the count has
    // reached zero its destruction is under way.
    long count = m_count->load(std::memory_order_relaxed);
    while (count > 0) {
        if (m_count->compare_exchange_weak(count, count + 1, std::memory_order_acq_rel)) {
            return Ref<Object>::Adopt(m_target);
        }
    }
    return nullptr;
}

bool WeakLink::IsAlive() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_target != nullptr && m_count->load(std::memory_order_acquire) > 0;
}

void WeakLink::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_target = nullptr;
    m_count = nullptr;
}

WeakLinkableImplPrivate::WeakLinkableImplPrivate() = default;
WeakLinkableImplPrivate::~WeakLinkableImplPrivate() = default;

void WeakLinkableImplPrivate::Init(ObjectImpl* owner) {
    m_owner = owner;
}

void WeakLinkableImplPrivate::GetLink(Ref<WeakLink>& link, RefCount& count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_link) {
        m_link = new WeakLink(m_owner, &count);
    }
    link = m_link;
}

bool WeakLinkableImplPrivate::HasLink(const WeakLink* link) const {
    return link != nullptr && m_link.Get() == link;
}

bool WeakLinkableImplPrivate::WeakDecRef(RefCount& count) {
    if (count.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return false;
    }
    Ref<WeakLink> link;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        link = m_link;
    }
    if (link) {
        // Waits for any Lock() in progress, which then sees the cleared target.
        link->Clear();
    }
    return true;
}

}  // namespace Basalt

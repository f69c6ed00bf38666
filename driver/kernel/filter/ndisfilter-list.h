// Typed intrusive lists over LIST_ENTRY. A list is only its head, so it lies in shared records as LIST_ENTRY does.
#pragma once

#include "ndisfilter-kernel.h"

#include <stddef.h>

// Where a record keeps its link; records with another link than m_ListEntry specialise it.
template <class Record> struct RecordLink {
    static constexpr SIZE_T Offset = offsetof(Record, m_ListEntry);
};

template <> struct RecordLink<FilterPacket> {
    static constexpr SIZE_T Offset = offsetof(FilterPacket, m_InjectLink);
};

template <class Record> class RecordList
{
  public:
    VOID Initialize()
    {
        InitializeListHead(&m_Head);
    }

    BOOLEAN IsEmpty() const
    {
        return m_Head.Flink == &m_Head;
    }

    VOID Append(Record& record)
    {
        InsertTailList(&m_Head, Link(record));
    }

    static VOID InsertBefore(Record& place, Record& record)
    {
        InsertTailList(Link(place), Link(record)); // a link is the head of the same ring
    }

    static VOID Unlink(Record& record)
    {
        RemoveEntryList(Link(record));
    }

    // The head record, unlinked; nullptr when the list is empty.
    Record* TakeFirst()
    {
        return IsEmpty() ? nullptr : FromLink(RemoveHeadList(&m_Head));
    }

    // Takes over the records of another list behind its own.
    VOID AppendAll(RecordList& other)
    {
        if (!other.IsEmpty()) {
            m_Head.Blink->Flink = other.m_Head.Flink;
            other.m_Head.Flink->Blink = m_Head.Blink;
            m_Head.Blink = other.m_Head.Blink;
            m_Head.Blink->Flink = &m_Head;
            other.Initialize();
        }
    }

    BOOLEAN Contains(const Record* record) const
    {
        for (const Record& entry : *this) {
            if (&entry == record) {
                return TRUE;
            }
        }
        return FALSE;
    }

    const LIST_ENTRY* Head() const
    {
        return &m_Head;
    }

    // Remembers the successor, so that the present record may be unlinked and freed.
    class Iterator
    {
      public:
        explicit Iterator(PLIST_ENTRY link) : link_(link), next_(link->Flink)
        {
        }
        Record& operator*() const
        {
            return *FromLink(link_);
        }
        Iterator& operator++()
        {
            link_ = next_;
            next_ = link_->Flink;
            return *this;
        }
        bool operator!=(const Iterator& other) const
        {
            return link_ != other.link_;
        }

      private:
        PLIST_ENTRY link_;
        PLIST_ENTRY next_;
    };

    // A place in a list that stays as it is for as long as somebody walks it.
    class Place
    {
      public:
        Place() = default; // to be assigned to
        explicit Place(const LIST_ENTRY* link) : link_(link) {}
        Record* Get() const { return FromLink(const_cast<PLIST_ENTRY>(link_)); }
        Place Next() const { return Place(link_->Flink); }
        bool operator==(const Place& other) const { return link_ == other.link_; }

      private:
        const LIST_ENTRY* link_;
    };

    Place First() const
    {
        return Place(m_Head.Flink);
    }
    Place End() const
    {
        return Place(&m_Head);
    }

    Iterator begin() const
    {
        return Iterator(m_Head.Flink);
    }
    Iterator end() const
    {
        return Iterator(const_cast<PLIST_ENTRY>(&m_Head));
    }

  private:
    static PLIST_ENTRY Link(Record& record)
    {
        return reinterpret_cast<PLIST_ENTRY>(reinterpret_cast<PUCHAR>(&record) + RecordLink<Record>::Offset);
    }
    static Record* FromLink(PLIST_ENTRY link)
    {
        return reinterpret_cast<Record*>(reinterpret_cast<PUCHAR>(link) - RecordLink<Record>::Offset);
    }

    LIST_ENTRY m_Head;
};

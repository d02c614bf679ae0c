// Property lists and keyed archives as JSON that shows what the file holds: dictionaries with
// their keys in file order, integers exact as stored (signed, or unsigned above 2^63 - 1), reals,
// dates as ISO-8601 UTC, data as base64, UIDs as {"UID": n}.
//
// Given the "$objects" table of a keyed archive, references are resolved instead: an archived
// object becomes a JSON object with its class name under "$class" first, then its members;
// NSString, NSData, NSDate, NSArray, NSSet, NSOrderedSet (and their mutable kinds) and NSNull
// become a plain string, data, date, array or null; an NSDictionary lists its entries after
// "$class". A reference to an object that is being written already, further up, is written
// {"$cycle": {"UID": n}}; one to no object stays {"UID": n}; one to the "$null" placeholder is
// null. The walk keeps its own stack, so chains of any length are written.
#pragma once

#include "JsonText.h"

namespace inspect {

class PlistJson {
public:
    explicit PlistJson(void* objects = nullptr);
    // Writes node; false, with the JSON cut short, once more than limit values were written (an
    // archive whose objects are shared many times over resolves into a tree far larger than itself).
    bool write(JsonText& json, void* node, qint64 limit);

    // The UTC text of a date node: the exact seconds from 2001-01-01, to the microsecond.
    static QString dateText(void* node);
    // The same for seconds counted from 2001-01-01 00:00:00 UTC.
    static QString appleTimeText(double seconds);

private:
    struct Member;
    struct Frame;
    void writeNode(JsonText& json, void* node, std::vector<Frame>& stack);
    void writeArchived(JsonText& json, void* node, qint64 uid, std::vector<Frame>& stack);
    void* object(qint64 uid) const;
    QString className(void* node) const;
    QString keyText(void* node) const;

    std::vector<void*> m_objects;
    bool m_resolve;
    std::vector<bool> m_active; // per object: being written further up
};

} // namespace inspect

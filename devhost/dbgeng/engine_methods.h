/*
 * The engine's interfaces as tables of functions. A client calls few of their many methods; the others
 * answer E_NOTIMPL.
 */
#ifndef DEVHOST_ENGINE_METHODS_H
#define DEVHOST_ENGINE_METHODS_H

#define CINTERFACE
#define DEBUG_NO_IMPLEMENTATION

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include <windows.h>
#include <initguid.h>
#include <dbgeng.h>

/* What a client has of the object. */
template <typename Interface, typename Object> struct engine_face : Interface {
    Object *owner;
};

inline HRESULT STDMETHODCALLTYPE engine_not_implemented(void)
{
    return E_NOTIMPL;
}

/* Fills the place of a method in a table. */
template <auto method, typename Object, typename Interface, typename Result, typename... Arguments>
void engine_put(Result(STDMETHODCALLTYPE **place)(Interface *, Arguments...))
{
    *place = [](Interface *self, Arguments... arguments) {
        try {
            return (static_cast<engine_face<Interface, Object> *>(self)->owner->*method)(
                arguments...);
        } catch (const std::bad_alloc &) {
            return static_cast<Result>(E_OUTOFMEMORY);
        }
    };
}

/* A table with the methods of every interface. The caller removes the arguments of a call, so one function
 * can stand for all other methods. */
template <typename Table, typename Object> Table engine_methods(void)
{
    void *places[sizeof(Table) / sizeof(void *)];
    Table table;

    std::fill(std::begin(places), std::end(places),
              reinterpret_cast<void *>(engine_not_implemented));
    memcpy(&table, places, sizeof table);
    engine_put<&Object::query_interface, Object>(&table.QueryInterface);
    engine_put<&Object::add_ref, Object>(&table.AddRef);
    engine_put<&Object::release, Object>(&table.Release);
    return table;
}

#endif

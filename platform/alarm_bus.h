// The alarm bus: alarms of subscribed sub-devices. Called by the alert-stream handler; the
// reference implementation is gateway/alarmbus.
#pragma once

#include <string>

// One alarm: a JSON text, not NUL-terminated, valid during the call only. Runs on the alarm bus's
// threads, for one device in the order of its alarms; must not block; must not throw. Returns
// length when the alarm was consumed, -1 on a fault (the bus only counts it).
using AlarmDataCallBack = int (*)(void* data, int length, void* user);

// All operations: any thread; none blocks on a device; 0 is success unless stated. `reply` receives
// the bus's own JSON status text.

// Subscribes to the devices of the request, a JSON text, and yields the subscription's id (not
// negative) in `subscribeId`, which a failure leaves untouched. No alarm is delivered before
// QN_AlarmBus_StartUploadData. `option` is always 1. The request:
//   {"SubscribeDeviceMgmt":{"eventMode":"device",
//     "DevEventList":[{"Dev":{"devIndex":"1","uploadMode":"all"}}, ...]}}
// with all alarms of each device that the list names; eventMode and uploadMode have no other value.
// A list that is empty or names an unknown device, and a text of another shape, are errors.
int QN_AlarmBus_Subscribe(std::string& reply, const std::string& request,
                          AlarmDataCallBack callback, void* user, int option, int& subscribeId);

// Ends a subscription. No callback runs after this has returned, so it waits for one that is
// running; never call it from the callback. An unknown id is an error.
int QN_AlarmBus_UnSubscribe(std::string& reply, int subscribeId, int option);

int QN_AlarmBus_StartUploadData(int subscribeId);

// Adding a device that is present succeeds; removing one that is absent succeeds. Unlike
// UnSubscribe they may be called from the callback. `devIndex` says which device; `request` repeats
// it: {"SubscribeDevEvent":{"devIndex":"1","uploadMode":"all"}}.
int QN_AlarmBus_AddDevice(std::string& reply, int subscribeId, const std::string& devIndex,
                          const std::string& request);
int QN_AlarmBus_DeleteDevice(std::string& reply, int subscribeId, const std::string& devIndex);

// Non-zero while the subscription is valid.
int QN_AlarmBus_CheckIDValid(int subscribeId);

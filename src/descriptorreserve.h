/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * DESCRIPTOR_RESERVE_SIZE:
 *
 * The number of file descriptors that always stay free, for the bus, the producers' file and the log.
 */
#define DESCRIPTOR_RESERVE_SIZE 32

/**
 * DESCRIPTOR_RESERVE_MAX_NUMBER:
 *
 * The numbers from this one on are not searched for open descriptors. The kernel gives out the lowest free
 * number, and all clients with the most producers have some 26,000.
 */
#define DESCRIPTOR_RESERVE_MAX_NUMBER 32768

/**
 * DescriptorReservation:
 *
 * Descriptors that the holder is about to open. Any thread can call the functions of this component.
 */
typedef struct DescriptorReservation DescriptorReservation;

DescriptorReservation *descriptor_reservation_new(guint count, GError **error);

void descriptor_reservation_free(DescriptorReservation *self);

guint descriptor_reserve_count_open(guint *limit);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(DescriptorReservation, descriptor_reservation_free)

G_END_DECLS

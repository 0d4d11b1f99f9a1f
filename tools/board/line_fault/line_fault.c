// SPDX-License-Identifier: GPL-2.0
/*
 * Plays a fault that the emulated serial line never has: a byte with a parity error, as the line's driver would report
 * it. From there on it goes the way of every byte.
 *
 *     echo BYTE >/sys/module/line_fault/parameters/parity      the number of the byte, for example 0x58
 */
#include <linux/err.h>
#include <linux/kernel.h>
#include <linux/major.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/tty.h>
#include <linux/tty_flip.h>

#define COM2_MINOR 65 /* ttyS1 */

static int play_parity_error(const char *value, const struct kernel_param *parameter)
{
    struct tty_struct *line;
    u8 byte;
    int error = kstrtou8(value, 0, &byte);
    if (error)
        return error;
    line = tty_kopen_shared(MKDEV(TTY_MAJOR, COM2_MINOR));
    if (IS_ERR(line))
        return PTR_ERR(line);
    tty_insert_flip_char(line->port, byte, TTY_PARITY);
    tty_flip_buffer_push(line->port);
    tty_kref_put(line);
    return 0;
}

static const struct kernel_param_ops parity = { .set = play_parity_error };
module_param_cb(parity, &parity, NULL, 0200);
MODULE_DESCRIPTION("Faults of the serial line, for tests");
MODULE_LICENSE("GPL");

// SPDX-License-Identifier: GPL-2.0
/*
 * A stand-in for the qeodmfs kernel module, for the virtual-machine tests
 * of mount.qeodmfs. It takes the 32-byte mount record as the real module
 * does, gives each mount a control file "cluster", and shows what it was
 * handed through read-only parameters. A test fixture: never installed.
 *
 * It has no file-system alias, so the kernel never loads it on demand: it
 * comes in through /etc/modules-load.d, as a vendor module does.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#define QEODM_MAGIC		0x71656f64	/* "qeod" */
#define QEODM_RECORD_VERSION	2

struct qeodm_record {
	u32 version;
	u32 size;		/* of the whole record */
	u64 requested;		/* the modes asked for */
	u64 available;		/* the modes the caller can select */
	u8 reserved[8];
};

/* What the tests read. */
static int calls;
module_param(calls, int, 0444);
MODULE_PARM_DESC(calls, "mount calls that reached the module");

/* Root's alone: past a short record lie whatever bytes the copy held. */
static char last_record[2 * sizeof(struct qeodm_record) + 1];
module_param_string(last_record, last_record, sizeof(last_record), 0400);
MODULE_PARM_DESC(last_record, "the record of the last call, in hex; empty for none");

static int last_errno;
module_param(last_errno, int, 0444);
MODULE_PARM_DESC(last_errno, "what the last call was answered with (0: mounted)");

static char control[16];
module_param_string(control, control, sizeof(control), 0444);
MODULE_PARM_DESC(control, "what the control file of the last call's mount took");

/* What the tests set. */
static int mount_errno;
module_param(mount_errno, int, 0644);
MODULE_PARM_DESC(mount_errno, "refuse every valid record with this errno (0: mount)");

static int control_errno;
module_param(control_errno, int, 0644);
MODULE_PARM_DESC(control_errno, "refuse every write to a control file with this errno");

static int control_bytes;
module_param(control_bytes, int, 0644);
MODULE_PARM_DESC(control_bytes, "take at most this many bytes of a write (0: all)");

static ssize_t control_read(struct file *file, char __user *buf, size_t len,
			    loff_t *ppos)
{
	return simple_read_from_buffer(buf, len, ppos, control, strlen(control));
}

static ssize_t control_write(struct file *file, const char __user *buf,
			     size_t len, loff_t *ppos)
{
	size_t take = len;

	if (control_errno > 0 && control_errno <= MAX_ERRNO)
		return -control_errno;
	if (control_bytes > 0 && take > (size_t)control_bytes)
		take = control_bytes;

	memset(control, 0, sizeof(control));
	if (copy_from_user(control, buf, min(take, sizeof(control) - 1)))
		return -EFAULT;
	pr_info("control file: %zu of %zu bytes taken\n", take, len);
	return take;
}

static const struct file_operations control_fops = {
	.read = control_read,
	.write = control_write,
	.llseek = default_llseek,
};

static int qeodm_fill_super(struct super_block *sb, void *data, int silent)
{
	static const struct tree_descr files[] = {
		[2] = { "cluster", &control_fops, 0600 },
		{ "" },
	};

	return simple_fill_super(sb, QEODM_MAGIC, files);
}

/*
 * The record is binary (FS_BINARY_MOUNTDATA), so nothing parses it as
 * text on the way here. Refused are exactly the records that odm-sandbox's
 * emulation refuses, so that the two answer the same calls alike: text,
 * no data, another version or another size.
 */
static int qeodm_check(const struct qeodm_record *rec)
{
	if (!rec) {
		last_record[0] = '\0';
		pr_info("no record\n");
		return -EINVAL;
	}
	*bin2hex(last_record, rec, sizeof(*rec)) = '\0';
	pr_info("version %u, size %u, requested %#llx, available %#llx\n",
		rec->version, rec->size, rec->requested, rec->available);

	if (rec->version != QEODM_RECORD_VERSION || rec->size != sizeof(*rec))
		return -EINVAL;
	if (mount_errno > 0 && mount_errno <= MAX_ERRNO)
		return -mount_errno;
	return 0;
}

static struct dentry *qeodm_mount(struct file_system_type *type, int flags,
				  const char *dev_name, void *data)
{
	struct dentry *root;

	calls++;
	control[0] = '\0';	/* no control file written yet */
	last_errno = -qeodm_check(data);
	if (last_errno)
		return ERR_PTR(-last_errno);
	root = mount_nodev(type, flags, data, qeodm_fill_super);
	if (IS_ERR(root))
		last_errno = -PTR_ERR(root);
	return root;
}

static struct file_system_type qeodm_fs_type = {
	.owner = THIS_MODULE,
	.name = "qeodmfs",
	.mount = qeodm_mount,
	.kill_sb = kill_litter_super,
	.fs_flags = FS_BINARY_MOUNTDATA,
};

static int __init qeodm_init(void)
{
	return register_filesystem(&qeodm_fs_type);
}

static void __exit qeodm_exit(void)
{
	unregister_filesystem(&qeodm_fs_type);
}

module_init(qeodm_init);
module_exit(qeodm_exit);

MODULE_DESCRIPTION("Stand-in qeodmfs module for the tests of mount.qeodmfs");
MODULE_LICENSE("GPL");

package net.tolva.apps.cuebench.client.win.deskwright.event;

/** Base of all driver events: a type code, the element concerned and what happened. */
public class WinEvent {
    public static final int CONNECTED = 100;
    public static final int TERMINATED = 101;
    public static final int CALLBACK = 120;
    public static final int KEY = 201;
    public static final int MOUSE = 202;
    public static final int CHANGE = 203;
    public static final int UIAUTOMATION = 204;
    public static final int MSAA = 205;

    private final int type;
    private final long handle;
    private final int code;
    private final long timestamp;

    public WinEvent(int type, long handle, int code) {
        this(type, handle, code, 0L);
    }

    protected WinEvent(int type, long handle, int code, long timestamp) {
        this.type = type;
        this.handle = handle;
        this.code = code;
        this.timestamp = timestamp;
    }

    public int getType() { return type; }
    public long getHandle() { return handle; }
    public int getCode() { return code; }
    /** Milliseconds since 1970-01-01 UTC; 0 when the driver gave none. */
    public long getTimestamp() { return timestamp; }

    @Override
    public String toString() {
        return getClass().getSimpleName() + "[type=" + type + ", handle=" + handle + ", code=" + code
                + ", timestamp=" + timestamp + "]";
    }
}

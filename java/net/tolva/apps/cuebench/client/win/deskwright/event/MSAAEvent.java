package net.tolva.apps.cuebench.client.win.deskwright.event;

/** A system window event (WinEvent); code is the event id. Carries a window, not an element. */
public class MSAAEvent extends WinEvent {
    private final int hwnd;
    private final int arg;

    public MSAAEvent(int type, int code, int hwnd, int arg) {
        this(type, code, hwnd, arg, 0L);
    }

    public MSAAEvent(int type, int code, int hwnd, int arg, long timestamp) {
        super(type, 0L, code, timestamp);
        this.hwnd = hwnd;
        this.arg = arg;
    }

    public int getHwnd() { return hwnd; }
    public int getArg() { return arg; }
}

package net.tolva.apps.cuebench.client.win.deskwright.event;

/** A UI Automation event; code is the event id, 4096 a property change, 4097 a structure change. */
public class UIAutomationEvent extends WinEvent {
    private final int param;
    private final String text;

    public UIAutomationEvent(int type, long handle, int code, int param, String text) {
        this(type, handle, code, param, text, 0L);
    }

    public UIAutomationEvent(int type, long handle, int code, int param, String text, long timestamp) {
        super(type, handle, code, timestamp);
        this.param = param;
        this.text = text;
    }

    public int getParam() { return param; }
    public String getText() { return text; }
}

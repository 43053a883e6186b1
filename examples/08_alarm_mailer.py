"""A service that mails alarms. They wait in a folder until the mail server has taken them.

    export VZCLIENT_HOST=plant.local:8000 VZCLIENT_USER=operator VZCLIENT_PASSWORD=secret
    python3 08_alarm_mailer.py mail.local:25 plant@example.org shift@example.org outbox
"""
import mailbox
import os
import signal
import smtplib
import sys
import vzclient

SERVER = [os.environ.get("VZCLIENT_" + name, "") for name in ("HOST", "USER", "PASSWORD")]
STOP = (signal.SIGTERM, signal.SIGINT)


def main(server: str, sender: str, recipient: str, folder: str) -> None:
    def keep(alarm: vzclient.Alarm) -> None:  # called on another thread: a stop cannot break it
        mail = mailbox.MaildirMessage()
        mail["From"], mail["To"] = sender, recipient
        mail["Subject"] = "%s %s %s" % (alarm.tag, alarm.kind, "on" if alarm.status else "off")
        mail.set_payload("\n".join("%s: %s" % field for field in vars(alarm).items()), "utf-8")
        outbox.add(mail)  # written to the disk

    outbox = mailbox.Maildir(folder)
    signal.pthread_sigmask(signal.SIG_BLOCK, STOP)  # they are waited for below
    with vzclient.connect(*SERVER, read_only=True) as plant:
        plant.on_alarm(keep, existing=True, on_error=lambda error: print(error, flush=True))
        while not signal.sigtimedwait(STOP, 2.0):  # seconds between two looks into the folder
            try:
                for key in sorted(outbox.keys()):
                    with smtplib.SMTP(server, timeout=20) as smtp:
                        smtp.send_message(outbox[key])
                        outbox.remove(key)
            except OSError as error:
                print("mails wait: %s" % error, flush=True)


if __name__ == "__main__":
    main(*(sys.argv[1:] if len(sys.argv) == 5 else sys.exit(__doc__)))

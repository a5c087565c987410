"""The example hook for Prometheus: what it publishes, read by Prometheus' own parser."""

import os
import stat
import time

from prometheus_client.parser import text_string_to_metric_families

from daemon_harness import WatchTest, as_user, instant, seconds_of
from harness import RUN, Daemon, install_features, read_file

HOOK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../device/examples/prometheus-textfile")
METRICS = RUN + "/featurewatch.prom"


def metrics():
    """The samples of each metric: pairs of labels and value."""
    families = text_string_to_metric_families(read_file(METRICS).decode())
    return {family.name: [(sample.labels, sample.value) for sample in family.samples] for family in families}


class PrometheusTest(WatchTest):
    def publish(self, *features):
        """Has a daemon publish these features and run the hook; returns its document and the metrics."""
        install_features(*features)
        with Daemon(hook=f"'{HOOK}'") as daemon:
            daemon.stop()
            self.assertEqual([record for record in self.records() if record[0] != "INFO"], [])
            return daemon.document(), metrics()

    def test_features_and_ends(self):
        "Each feature has a metric with name and source, one that ends a second with the instant; the date is there."
        end = int(time.time()) + 1000
        document, found = self.publish("signage", {"name": "video-wall", "validUntil": instant(end)})
        wanted = [({"name": name, "source": "installed"}, 1.0) for name in ("signage", "video-wall")]
        self.assertEqual(found["featurewatch_feature_info"], wanted)
        ends = found["featurewatch_feature_end_timestamp_seconds"]
        self.assertEqual(ends, [({"name": "video-wall"}, float(end))])
        date = seconds_of(document["checkDate"])
        self.assertEqual(found["featurewatch_published_timestamp_seconds"], [({}, float(date))])

    def test_no_feature(self):
        "Without a feature the metrics are declared and empty, so that the exporter takes the file."
        found = self.publish()[1]
        self.assertEqual(found["featurewatch_feature_info"], [])
        self.assertEqual(found["featurewatch_feature_end_timestamp_seconds"], [])

    def test_names_of_every_kind(self):
        "Names with quotes, backslashes, line feeds and letters beyond ASCII come out as they are."
        names = sorted(['a"b', "a\\b", "a\nb", "a\\nb", "a,b}", "Größe"], key=str.encode)
        found = self.publish(*names)[1]
        self.assertEqual([labels["name"] for labels, _ in found["featurewatch_feature_info"]], names)

    def test_others_can_read_it(self):
        "The file can be read by everybody, belongs to root, and nothing is left beside it."
        self.publish("a")
        status = os.stat(METRICS)
        self.assertEqual((stat.S_IMODE(status.st_mode), status.st_uid), (0o644, 0))
        self.assertEqual([name for name in os.listdir(RUN) if name.startswith("featurewatch.prom.")], [])

    def test_planted_link_is_replaced(self):
        "A link that the daemon's user put in its way is replaced; what it points to stays as it was."
        target = self.work_path("target")
        with open(target, "w") as stream:
            stream.write("untouched")
        os.symlink(target, METRICS)
        os.chown(METRICS, as_user()["user"], as_user()["group"], follow_symlinks=False)
        self.publish("a")
        self.assertFalse(os.path.islink(METRICS))
        self.assertEqual(read_file(target), b"untouched")
